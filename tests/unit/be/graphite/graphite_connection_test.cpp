// Connections over real sockets, with a sink in the place of the stores: without a topology every line is
// another node's, and its batch ends in the journals.

#include "be/graphite/graphite_connection.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "be/raw/raw_put_budget.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"
#include "support/log_capture.h"

namespace be::graphite {
namespace {

constexpr auto BOUND = std::chrono::seconds(60);

// Remembers what arrives; while it is held, nothing gets through.
class sink_c : public raw::journal_sink_c {
 public:
  bool append(const raw::raw_batch_t &batch) override {
    std::unique_lock lock(m_mutex);
    m_batches++;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return !m_held; });
    for (size_t i = 0; i < batch.size(); i++)
      m_values[velmar_metric_locator_get_name_with_tags(batch.numerics[i].locator.get())] +=
          batch.samples[i].bits;
    m_samples += batch.size();
    m_changed.notify_all();
    return true;
  }
  void hold(bool on) {
    const std::lock_guard lock(m_mutex);
    m_held = on;
    m_changed.notify_all();
  }
  bool wait_samples(size_t samples) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, BOUND, [&] { return m_samples >= samples; }) && m_samples == samples;
  }
  bool wait_batches(size_t batches) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, BOUND, [&] { return m_batches >= batches; }) && m_batches == batches;
  }
  std::map<std::string, uint64_t> values() {
    const std::lock_guard lock(m_mutex);
    return m_values;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_held = false;
  size_t m_batches = 0, m_samples = 0;
  std::map<std::string, uint64_t> m_values;
};

class client_c {
 public:
  explicit client_c(const listener_config_t &config = {}) {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    krelev_set_fd_nonblocking(fds[0]);
    m_fd = fds[1];
    connection_serve(fds[0], config);
  }
  ~client_c() { close(); }
  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }
  void send(const std::string &text) {
    for (size_t at = 0; at < text.size();) {
      const ssize_t n = ::send(m_fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
      ASSERT_GT(n, 0);
      at += static_cast<size_t>(n);
    }
  }
  // As much as the other side takes without reading; the bytes sent.
  size_t send_until_full(const std::string &text) {
    size_t at = 0;
    for (ssize_t n; at < text.size() &&
                    (n = ::send(m_fd, text.data() + at, text.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT)) > 0;)
      at += static_cast<size_t>(n);
    return at;
  }
  bool is_closed() {
    char c;
    pollfd p{m_fd, POLLIN, 0};
    return poll(&p, 1, 60000) == 1 && recv(m_fd, &c, 1, 0) <= 0;
  }

 private:
  int m_fd = -1;
};

class graphite_connection : public testing::Test {
 protected:
  void SetUp() override {
    krelev_config("concurrency", "2");
    ASSERT_EQ(krelev_init(), 0);
    krelev_start_threads();
    rest_graphite_mgr_init();
    raw::raw_mgr().parse_jobq = krelev_jobq_create_ms("parse", true);
    raw::raw_mgr().ingest_jobq = krelev_jobq_create_ms("ingest", true);
    raw::raw_mgr_set_journal_sink(&sink);
  }
  void TearDown() override {
    sink.hold(false);
    EXPECT_TRUE(wait_gone());
    krelev_stop();
    raw::raw_mgr_set_journal_sink(nullptr);
  }
  static bool wait_gone() {
    const auto end = std::chrono::steady_clock::now() + BOUND;
    while (connections_open() > 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    return connections_open() == 0;
  }
  std::string line(const std::string &name, uint64_t value) const {
    return name + " " + std::to_string(value) + " " + now + "\n";
  }

  const std::string now = std::to_string(krel_now_ms() / 1000);
  sink_c sink;
};

TEST_F(graphite_connection, lines_in_pieces_on_two_connections) {
  std::string first, second;
  for (uint64_t i = 0; i < 50; i++) {
    first += line("first", i);
    second += line("second;of=two", 1000 * i);
  }
  client_c a, b;
  for (size_t at = 0; at < std::max(first.size(), second.size()); at++) {
    if (at < first.size()) a.send(first.substr(at, 1));
    if (at < second.size()) b.send(second.substr(at, 1));
  }
  EXPECT_TRUE(sink.wait_samples(100));
  const std::map<std::string, uint64_t> expected{{"first", 1225}, {"second|ST[of:two]", 1225000}};
  EXPECT_EQ(sink.values(), expected);
}

TEST_F(graphite_connection, what_has_no_newline_is_lost_with_the_connection) {
  {
    client_c a;
    a.send(line("whole", 1) + "part 1 " + now);
  }
  EXPECT_TRUE(wait_gone());
  EXPECT_TRUE(sink.wait_samples(1));
}

TEST_F(graphite_connection, a_line_longer_than_the_buffer_costs_itself_alone) {
  const log_capture_c log("error/graphite");
  client_c a;
  a.send(line("before", 1) + std::string(3 << 20, 'x') + " 1 " + now + "\n" + line("after", 1));
  EXPECT_TRUE(sink.wait_samples(2));
  EXPECT_EQ(sink.values().count("after"), 1U);
  EXPECT_TRUE(log.contains("a line of more than ")) << log.text();
  // one that fits the buffer is looked at, and its name is too long
  a.send(std::string(400000, 'y') + " 1 " + now + "\n" + line("after", 1));
  EXPECT_TRUE(sink.wait_samples(3));
  EXPECT_TRUE(log.contains("metric name too long: yyy"));
}

TEST_F(graphite_connection, a_slow_store_stops_the_reading) {
  sink.hold(true);
  client_c a;
  const std::string text = line("slow", 1);
  a.send(text);
  ASSERT_TRUE(sink.wait_batches(1));
  std::string flood;
  while (flood.size() < (4 << 20)) flood += text;
  const size_t sent = a.send_until_full(flood);
  EXPECT_LT(sent, flood.size()) << "somebody reads on";
  EXPECT_TRUE(sink.wait_batches(1));
  sink.hold(false);
  a.send(flood.substr(sent));
  EXPECT_TRUE(sink.wait_samples(1 + flood.size() / text.size()));
}

TEST_F(graphite_connection, without_memory_a_connection_waits_for_it) {
  constexpr size_t ALL = 96 << 20;
  ASSERT_TRUE(raw::raw_put_budget().try_take(ALL));
  client_c a, b;
  a.send(line("waits", 1));
  b.send(line("waits", 1));
  EXPECT_TRUE(sink.wait_batches(0));
  raw::raw_put_budget().give_back(ALL);
  EXPECT_TRUE(sink.wait_samples(2));
  a.close();
  b.close();
  EXPECT_TRUE(wait_gone());
  EXPECT_TRUE(raw::raw_put_budget().try_take(ALL)) << "not all of it came back";
  raw::raw_put_budget().give_back(ALL);
}

// The last one: it closes the connections for good.
TEST_F(graphite_connection, zz_a_stop_takes_what_has_been_sent) {
  client_c a, idle;
  sink.hold(true);
  a.send(line("first", 1));
  ASSERT_TRUE(sink.wait_batches(1));
  a.send(line("last", 1) + "part 1");
  std::thread stop(connections_close);
  EXPECT_TRUE(idle.is_closed());
  sink.hold(false);
  EXPECT_TRUE(a.is_closed());
  stop.join();
  EXPECT_TRUE(sink.wait_samples(2));
}

}  // namespace
}  // namespace be::graphite
