#include "platform/krel/http/http_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/http/http_connection.h"
#include "platform/krel/http/http_files.h"

namespace {

constexpr int backlog = 4096;
constexpr int accepts_a_turn = 64;

struct listener_t {
  int fd = -1;
  int port = -1;
  krelev_event_t event = nullptr;
  http_tls_context_t *tls = nullptr;
  krel_accept_callback_t accept = nullptr;  // null: HTTP
  krel_conf_section_t section;
  unsigned next_owner = 0;
  int spare_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  uint64_t complained_ms = 0;
  ~listener_t() {
    if (fd >= 0) ::close(fd);
    if (spare_fd >= 0) ::close(spare_fd);
    http_tls_context_free(tls);
  }
};

krel_mutex_c listeners_lock;
// Closed ones stay: their sections were handed out.
std::vector<std::unique_ptr<listener_t>> listeners GUARDED_BY(listeners_lock);
std::map<std::string, krel_accept_callback_t> types GUARDED_BY(listeners_lock);

std::string peer_text(const struct sockaddr_storage &address, socklen_t length) {
  char host[INET6_ADDRSTRLEN], port[8];
  if (::getnameinfo(reinterpret_cast<const struct sockaddr *>(&address), length, host, sizeof(host), port,
                    sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return "";
  return std::string(host) + ":" + port;
}

// Out of descriptors: a waiting client is let in by the spare one and turned away, so that the listener
// neither spins nor leaves it hanging. On the first loop's thread alone.
void turn_one_away(listener_t *listener) {
  const int error = errno;
  const uint64_t now_ms = krel_now_ms();
  if (now_ms - listener->complained_ms >= 1000)
    krel_log(krel_error, "accept on port %d: %s: clients are turned away\n", listener->port, strerror(error));
  listener->complained_ms = now_ms;
  if (listener->spare_fd >= 0) ::close(listener->spare_fd);
  const int fd = ::accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) ::close(fd);
  listener->spare_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void serve(listener_t *listener, int fd, const struct sockaddr_storage &peer, socklen_t length) {
  if (listener->accept) return listener->accept(fd, peer_text(peer, length), &listener->section);
  auto transport = listener->tls ? http_tls_transport(fd, listener->tls) : http_plain_transport(fd);
  if (transport)
    http_connection_serve(std::move(transport),
                          krelev_choose_owner(static_cast<int>(listener->next_owner++ & 0xffff)));
}

int on_acceptable(krelev_event_t, int, void *closure, const struct timeval *) {
  auto *listener = static_cast<listener_t *>(closure);
  for (int i = 0; i < accepts_a_turn; i++) {
    struct sockaddr_storage peer;
    socklen_t length = sizeof(peer);
    const int fd = ::accept4(listener->fd, reinterpret_cast<struct sockaddr *>(&peer), &length,
                             SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      serve(listener, fd, peer, length);
    } else if (errno == EMFILE || errno == ENFILE) {
      turn_one_away(listener);
      break;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINVAL) {
      break;  // EINVAL: shut down
    }
  }
  return KRELEV_READ;
}

// A bound and listening socket, or -1 with the reason.
int open_socket(const std::string &address, int port, int *bound_port, std::string *error) {
  struct addrinfo hints {
  }, *found = nullptr;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  const char *host = address.empty() || address == "*" ? nullptr : address.c_str();
  if (const int failed = ::getaddrinfo(host, fmt::format("{}", port).c_str(), &hints, &found)) {
    *error = gai_strerror(failed);
    return -1;
  }
  const std::unique_ptr<struct addrinfo, void (*)(struct addrinfo *)> freed(found, ::freeaddrinfo);
  const int fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  struct sockaddr_storage bound;
  socklen_t length = sizeof(bound);
  if (fd >= 0) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  if (fd < 0 || ::bind(fd, found->ai_addr, found->ai_addrlen) != 0 || ::listen(fd, backlog) != 0 ||
      ::getsockname(fd, reinterpret_cast<struct sockaddr *>(&bound), &length) != 0) {
    *error = strerror(errno);
    if (fd >= 0) ::close(fd);
    return -1;
  }
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));  // what is accepted inherits it
  *bound_port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<struct sockaddr_in6 *>(&bound)->sin6_port
                                                  : reinterpret_cast<struct sockaddr_in *>(&bound)->sin_port);
  return fd;
}

int start(std::unique_ptr<listener_t> listener, const std::string &address, int port, std::string *error) {
  listener->fd = open_socket(address, port, &listener->port, error);
  if (listener->fd < 0) return -1;
  const int bound = listener->port;
  listener->event = krelev_alloc_fd(listener->fd, KRELEV_READ, on_acceptable, listener.get());
  krelev_set_owner(listener->event, krelev_choose_owner(0));
  krelev_add(listener->event);
  krel_lock_c lock(listeners_lock);
  listeners.push_back(std::move(listener));
  return bound;
}

// A configuration that cannot be served ends the process.
void open_configured(const krel_conf_section_t &section) {
  std::string type, address, error;
  int32_t port = -1;
  bool ssl = false;
  krel_conf_get_string(section, "@type", &type);
  krel_conf_get_string(section, "@address", &address);
  krel_conf_get_int32(section, "@port", &port);
  krel_conf_get_boolean(section, "@ssl", &ssl);
  if (port < 0 || port > 65535) krel_fatal("listener \"%s\": port %d is none\n", type.c_str(), port);
  auto listener = std::make_unique<listener_t>();
  listener->section = section;
  if (type != "http_rest_api") {
    krel_lock_c lock(listeners_lock);
    auto found = types.find(type);
    if (found == types.end()) krel_fatal("listener type \"%s\" is not known\n", type.c_str());
    if (!found->second) return;
    if (ssl) krel_fatal("listener \"%s\": ssl is not to be had for this type\n", type.c_str());
    listener->accept = found->second;
  }
  if (ssl) {
    std::string certificate, key, chain;
    krel_conf_get_string(section, "sslconfig/certificate_file", &certificate);
    krel_conf_get_string(section, "sslconfig/key_file", &key);
    krel_conf_get_string(section, "sslconfig/ca_chain", &chain);
    listener->tls = http_tls_context_new(certificate.c_str(), key.c_str(), chain.c_str());
    if (!listener->tls) krel_fatal("listener %s:%d: ssl cannot be set up, see above\n", address.c_str(), port);
  }
  const int bound = start(std::move(listener), address, port, &error);
  if (bound < 0)
    krel_fatal("cannot listen on %s:%d (%s): %s\n", address.c_str(), port, type.c_str(), error.c_str());
  krel_log(krel_notice, "listening on %s:%d (%s)\n", address.c_str(), bound, type.c_str());
}

uint32_t limit_ms(const char *path, uint32_t otherwise) {
  uint64_t ms = otherwise;
  if (krel_conf_get_duration(KREL_CONF_ROOT, path, krel_get_durations_ms(), &ms) && (ms == 0 || ms > 86400000))
    krel_fatal("%s must lie between 1ms and 1d\n", path);
  return static_cast<uint32_t>(ms);
}

}  // namespace

int http_listen(const std::string &address, int port, http_tls_context_t *tls, std::string *error) {
  auto listener = std::make_unique<listener_t>();
  listener->tls = tls;
  return start(std::move(listener), address, port, error);
}

// ---- the public face

void krel_http_rest_init() {
  ::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is an error of the write
  http_connections_wind_up(false);
  krelev_name_callback("listener", on_acceptable);
  http_timeouts_t limits;
  limits.header_ms = limit_ms("//rest/@header_timeout", limits.header_ms);
  limits.idle_ms = limit_ms("//rest/@idle_timeout", limits.idle_ms);
  limits.body_ms = limit_ms("//rest/@body_timeout", limits.body_ms);
  limits.write_ms = limit_ms("//rest/@write_timeout", limits.write_ms);
  http_timeouts_set(limits);
  std::string root;
  krel_conf_get_string(KREL_CONF_ROOT, "//rest/@document_root", &root);
  http_files_set_root(root);
}

void krel_listener_init(const char *app) {
  const std::string path = fmt::format("/{}/listeners//listener", app);
  for (const krel_conf_section_t &section : krel_conf_get_sections_read(KREL_CONF_ROOT, path.c_str()))
    open_configured(section);
}

void krel_listener_register_type(const char *type, krel_accept_callback_t accept) {
  krel_lock_c lock(listeners_lock);
  types[type] = accept;
}

int krel_listener_port(int index) {
  krel_lock_c lock(listeners_lock);
  if (index < 0 || static_cast<size_t>(index) >= listeners.size()) return -1;
  return listeners[static_cast<size_t>(index)]->port;
}

void krel_listener_close_all() {
  http_connections_wind_up(true);
  krel_lock_c lock(listeners_lock);
  for (const auto &each : listeners) {
    if (!each->event) continue;
    listener_t *listener = each.get();
    // Takes effect at once, on any thread; the rest is the owner's.
    ::shutdown(listener->fd, SHUT_RDWR);
    krelev_event_t event = std::exchange(listener->event, nullptr);
    krelev_post(krelev_get_owner(event), [listener, event] {
      krelev_remove_fd(event);
      krelev_free(event);
      ::close(std::exchange(listener->fd, -1));
    });
  }
}
