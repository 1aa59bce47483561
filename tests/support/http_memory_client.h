#pragma once
// A client of the HTTP layer without sockets and threads: it drives a connection's state machine directly.
// What the client sends arrives in the pieces in which it was fed.

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "platform/krel/http/http_connection.h"

struct http_memory_wire_t {
  std::deque<std::string> incoming;
  std::string written;
  size_t takes = ~size_t{0};  // bytes the client's side still takes
  bool ended = false;         // the client has closed its direction
  bool write_ended = false;
};

class http_memory_transport_c final : public http_transport_c {
 public:
  explicit http_memory_transport_c(http_memory_wire_t *wire) : m_wire(wire) {}

  ssize_t read(void *to, size_t size) override {
    if (m_wire->incoming.empty()) return m_wire->ended ? HTTP_EOF : HTTP_AGAIN;
    std::string &front = m_wire->incoming.front();
    const size_t n = std::min(size, front.size());
    memcpy(to, front.data(), n);
    front.erase(0, n);
    if (front.empty()) m_wire->incoming.pop_front();
    return static_cast<ssize_t>(n);
  }
  ssize_t write(const struct iovec *pieces, int count) override {
    ssize_t total = 0;
    for (int i = 0; i < count; i++) {
      const size_t n = std::min(pieces[i].iov_len, m_wire->takes);
      m_wire->written.append(static_cast<const char *>(pieces[i].iov_base), n);
      m_wire->takes -= n;
      total += static_cast<ssize_t>(n);
    }
    return total > 0 ? total : HTTP_AGAIN;
  }
  ssize_t send_file(int, off_t *, size_t) override { return HTTP_BROKEN; }
  void shutdown_write() override { m_wire->write_ended = true; }

 private:
  http_memory_wire_t *m_wire;
};

class http_memory_client_c {
 public:
  http_memory_client_c()
      : m_connection(
            std::make_unique<krel_http_connection_t>(std::make_unique<http_memory_transport_c>(&wire))) {
    m_connection->loop = http_loop_t::current();
    m_connection->loop->link(&m_connection->wheel);
  }
  ~http_memory_client_c() {
    // The client goes away: the connection must notice and end by itself.
    wire.ended = true;
    wire.takes = ~size_t{0};
    for (int i = 0; i < 100 && open(); i++) turn();
    if (open()) abort();
  }

  // Sends bytes and lets the connection work until it waits.
  void feed(std::string_view bytes) {
    if (!bytes.empty()) wire.incoming.emplace_back(bytes);
    turn();
  }
  void turn() {
    for (int i = 0; i < 1000 && open(); i++) {
      mask = m_connection->run();
      if (mask == krel_http_connection_t::GONE) m_connection.reset();
      const bool can_read = (mask & KRELEV_READ) && !wire.incoming.empty();
      if (!can_read && !((mask & KRELEV_WRITE) && wire.takes > 0)) break;
    }
  }
  bool open() const { return m_connection != nullptr; }
  krel_http_connection_t &connection() { return *m_connection; }
  std::string take() { return std::exchange(wire.written, {}); }

  http_memory_wire_t wire;
  int mask = 0;

 private:
  std::unique_ptr<krel_http_connection_t> m_connection;
};
