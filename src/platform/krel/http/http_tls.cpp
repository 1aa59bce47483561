#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "platform/krel/http/http_transport.h"

struct http_tls_context_t {
  SSL_CTX *ssl;
};

namespace {

struct ssl_free_t {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};

class tls_transport_c final : public http_transport_c {
 public:
  tls_transport_c(int fd, SSL *ssl) : m_ssl(ssl), m_fd(fd) {}
  ~tls_transport_c() override {
    m_ssl.reset();
    ::close(m_fd);
  }

  ssize_t read(void *to, size_t size) override {
    ERR_clear_error();
    size_t n = 0;
    const int result = SSL_read_ex(m_ssl.get(), to, size, &n);
    if (result == 1) {
      m_read_needs = KRELEV_READ;
      return static_cast<ssize_t>(n);
    }
    switch (SSL_get_error(m_ssl.get(), result)) {
      case SSL_ERROR_WANT_READ:
        m_read_needs = KRELEV_READ;
        return HTTP_AGAIN;
      case SSL_ERROR_WANT_WRITE:
        m_read_needs = KRELEV_WRITE;
        return HTTP_AGAIN;
      case SSL_ERROR_ZERO_RETURN:
        return HTTP_EOF;
      default:
        m_broken = true;
        return HTTP_BROKEN;
    }
  }

  ssize_t write(const struct iovec *pieces, int count) override {
    ssize_t total = 0;
    for (int i = 0; i < count; i++) {
      const ssize_t n = write_some(pieces[i].iov_base, pieces[i].iov_len);
      if (n < 0) return total > 0 ? total : n;
      total += n;
      if (static_cast<size_t>(n) < pieces[i].iov_len) break;
    }
    return total;
  }

  ssize_t send_file(int fd, off_t *offset, size_t length) override {
    char buffer[16384];
    const ssize_t got = ::pread(fd, buffer, std::min(length, sizeof(buffer)), *offset);
    if (got <= 0) return HTTP_BROKEN;
    const ssize_t n = write_some(buffer, static_cast<size_t>(got));
    if (n > 0) *offset += n;
    return n;
  }

  void shutdown_write() override {
    ERR_clear_error();
    if (!m_broken && SSL_is_init_finished(m_ssl.get())) SSL_shutdown(m_ssl.get());
    ::shutdown(m_fd, SHUT_WR);
  }

  bool is_established() const override { return SSL_is_init_finished(m_ssl.get()); }
  bool pending() const override { return SSL_pending(m_ssl.get()) > 0; }
  int read_needs() const override { return m_read_needs; }
  int write_needs() const override { return m_write_needs; }
  int fd() const override { return m_fd; }

 private:
  ssize_t write_some(const void *bytes, size_t length) {
    ERR_clear_error();
    size_t n = 0;
    const int result = SSL_write_ex(m_ssl.get(), bytes, length, &n);
    if (result == 1) return static_cast<ssize_t>(n);
    switch (SSL_get_error(m_ssl.get(), result)) {
      case SSL_ERROR_WANT_READ:
        m_write_needs = KRELEV_READ;
        return HTTP_AGAIN;
      case SSL_ERROR_WANT_WRITE:
        m_write_needs = KRELEV_WRITE;
        return HTTP_AGAIN;
      default:
        m_broken = true;
        return HTTP_BROKEN;
    }
  }

  std::unique_ptr<SSL, ssl_free_t> m_ssl;
  int m_fd;
  int m_read_needs = KRELEV_READ;
  int m_write_needs = KRELEV_WRITE;
  bool m_broken = false;
};

void log_failure(const char *what, const char *file) {
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof(text));
  krel_log(krel_error, "tls: cannot use %s \"%s\": %s\n", what, file, text);
}

}  // namespace

std::unique_ptr<http_transport_c> http_tls_transport(int fd, http_tls_context_t *context) {
  SSL *ssl = SSL_new(context->ssl);
  if (!ssl || SSL_set_fd(ssl, fd) != 1) {
    SSL_free(ssl);
    ::close(fd);
    return nullptr;
  }
  SSL_set_accept_state(ssl);
  return std::make_unique<tls_transport_c>(fd, ssl);
}

http_tls_context_t *http_tls_context_new(const char *certificate_file, const char *key_file,
                                         const char *ca_chain) {
  ERR_clear_error();
  SSL_CTX *ssl = SSL_CTX_new(TLS_server_method());
  krel_assert(ssl != nullptr);
  SSL_CTX_set_min_proto_version(ssl, TLS1_2_VERSION);
  SSL_CTX_set_mode(
      ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_options(ssl, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_session_cache_mode(ssl, SSL_SESS_CACHE_OFF);  // tickets carry resumption
  bool ok = false;
  if (SSL_CTX_use_certificate_chain_file(ssl, certificate_file) != 1)
    log_failure("certificate_file", certificate_file);
  else if (SSL_CTX_use_PrivateKey_file(ssl, key_file, SSL_FILETYPE_PEM) != 1)
    log_failure("key_file", key_file);
  else if (SSL_CTX_check_private_key(ssl) != 1)
    log_failure("key_file (it does not belong to the certificate)", key_file);
  else if (ca_chain && *ca_chain && SSL_CTX_load_verify_locations(ssl, ca_chain, nullptr) != 1)
    log_failure("ca_chain", ca_chain);
  else
    ok = true;
  if (!ok) {
    SSL_CTX_free(ssl);
    return nullptr;
  }
  return new http_tls_context_t{ssl};
}

void http_tls_context_free(http_tls_context_t *context) {
  if (!context) return;
  SSL_CTX_free(context->ssl);
  delete context;
}
