#pragma once
// The byte stream under a connection: a TCP socket, TLS over one, or what a test puts there.

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>

struct http_tls_context_t;

// Calls return the bytes moved, HTTP_AGAIN, HTTP_EOF (reading only) or HTTP_BROKEN; they never block.
constexpr ssize_t HTTP_EOF = 0;
constexpr ssize_t HTTP_AGAIN = -1;
constexpr ssize_t HTTP_BROKEN = -2;

class http_transport_c {
 public:
  virtual ~http_transport_c() = default;
  virtual ssize_t read(void *to, size_t size) = 0;
  virtual ssize_t write(const struct iovec *pieces, int count) = 0;
  // From the file at *offset on, which is advanced. A file shorter than `length` breaks the stream.
  virtual ssize_t send_file(int fd, off_t *offset, size_t length) = 0;
  virtual void shutdown_write() = 0;
  // False while a handshake is under way: nothing of ours can be sent.
  virtual bool is_established() const { return true; }
  // Bytes that were taken off the socket and wait in the transport: no event will tell of them.
  virtual bool pending() const { return false; }
  // The event that lets an interrupted read or write go on, as KRELEV_READ or KRELEV_WRITE.
  virtual int read_needs() const;
  virtual int write_needs() const;
  virtual int fd() const { return -1; }
};

// Both own the socket, which is non-blocking.
std::unique_ptr<http_transport_c> http_plain_transport(int fd);
std::unique_ptr<http_transport_c> http_tls_transport(int fd, http_tls_context_t *context);

// PEM files; ca_chain may be null. Null with the reason logged when they cannot be used.
http_tls_context_t *http_tls_context_new(const char *certificate_file, const char *key_file,
                                         const char *ca_chain);
void http_tls_context_free(http_tls_context_t *context);
