#pragma once
// A server on a free port of loopback with loops and queues of its own, and plain clients.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/http/http_connection.h"
#include "platform/krel/http/http_listener.h"

constexpr uint64_t k_patience_ns = 60ull * 1000000000;

inline bool eventually(const std::function<bool()> &condition) {
  const uint64_t end = krel_gethrtime() + k_patience_ns;
  while (!condition()) {
    if (krel_gethrtime() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

class http_test_server_c {
 public:
  explicit http_test_server_c(const http_timeouts_t &timeouts = {}, http_tls_context_t *tls = nullptr) {
    http_connections_wind_up(false);
    http_timeouts_set(timeouts);
    krelev_config("concurrency", "2");
    krelev_config("loop_other", "1");
    krelev_config("jobq_work", "4,1,4");
    EXPECT_EQ(krelev_init(), 0);
    krelev_start_threads();
    std::string error;
    port = http_listen("127.0.0.1", 0, tls, &error);
    EXPECT_GT(port, 0) << error;
  }
  ~http_test_server_c() {
    krel_listener_close_all();
    EXPECT_TRUE(eventually([] { return krel_http_requests_in_flight() == 0; }));
    krelev_stop();
    http_timeouts_set({});
  }
  int port;
};

class http_test_client_c {
 public:
  explicit http_test_client_c(int port, int receive_buffer = 0)
      : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receive_buffer > 0) ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    struct sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_connected = ::connect(m_fd, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) == 0;
  }
  ~http_test_client_c() { ::close(m_fd); }
  http_test_client_c(const http_test_client_c &) = delete;
  http_test_client_c &operator=(const http_test_client_c &) = delete;

  bool connected() const { return m_connected; }
  int fd() const { return m_fd; }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
  }
  // False when the server has closed, or nothing came for too long.
  bool receive_some() {
    char buffer[65536];
    struct pollfd wait = {m_fd, POLLIN, 0};
    if (::poll(&wait, 1, static_cast<int>(k_patience_ns / 1000000)) != 1) {
      ADD_FAILURE() << "nothing came";
      return false;
    }
    const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
    if (n <= 0) return false;
    m_received.append(buffer, static_cast<size_t>(n));
    return true;
  }
  // All until the server closes.
  std::string rest() {
    while (receive_some()) {
    }
    return std::exchange(m_received, {});
  }
  // One response with a length.
  std::string response() {
    for (;;) {
      const size_t end = m_received.find("\r\n\r\n");
      if (end != std::string::npos) {
        const size_t at = m_received.find("Content-Length: ");
        const size_t size = end + 4 + (at < end ? strtoul(m_received.c_str() + at + 16, nullptr, 10) : 0);
        if (m_received.size() >= size) {
          std::string one = m_received.substr(0, size);
          m_received.erase(0, size);
          return one;
        }
      }
      if (!receive_some()) return std::exchange(m_received, {});
    }
  }
  std::string get(const std::string &target, const std::string &headers = "") {
    send("GET " + target + " HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n");
    return response();
  }

 private:
  int m_fd;
  bool m_connected;
  std::string m_received;
};
