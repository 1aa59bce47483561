#include "be/graphite/graphite_connection.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "be/graphite/graphite_log.h"
#include "be/graphite/graphite_put_lines.h"
#include "be/raw/raw_put_budget.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"

namespace be::graphite {

namespace {

constexpr size_t ORDINARY_LINE = 8192;
constexpr size_t LONG_LINES = 16 * 1024 * 1024;
constexpr int CLOSE_TIMEOUT_S = 10;
constexpr useconds_t CLOSE_POLL_US = 10000;

std::atomic<int> open_connections{0};
std::atomic<bool> closing{false};  // what has been sent is taken
std::atomic<bool> closed{false};   // nothing is

raw::raw_put_budget_c &long_lines() {
  static raw::raw_put_budget_c budget(LONG_LINES);
  return budget;
}

class listener_closure_t {
 public:
  listener_closure_t(int fd, const listener_config_t &config)
      : m_fd(fd), m_owner(krelev_choose_owner(fd + 1)), m_config(config), m_limit(config.buffer_size - 2) {
    open_connections++;
  }
  listener_closure_t(const listener_closure_t &) = delete;
  listener_closure_t &operator=(const listener_closure_t &) = delete;
  ~listener_closure_t();

  pthread_t owner() const { return m_owner; }
  // All of these on the owner's thread.
  void start();
  void finish();
  static void finish_all();
  static int on_event(krelev_event_t event, int mask, void *closure, const struct timeval *now);

 private:
  enum class next_e { read, wait, end };

  next_e listener_handler();
  next_e read_lines();
  void take_lines(std::string_view bytes, std::string *lines);
  void keep(std::string_view beginning);
  void drop_beginning();
  void hand_out(std::string lines);
  void listener_put_callback_closure_cleanup(uint32_t errors, uint32_t noti);
  void go_on(next_e next);
  bool all_is_taken() const { return m_last && m_left == 0; }

  const int m_fd;
  const pthread_t m_owner;
  const listener_config_t m_config;
  const size_t m_limit;  // of a line, and of one read
  krelev_event_t m_event = nullptr;
  bool m_armed = false;       // the event is on the loop
  std::string m_beginning;    // of a line that has not ended
  bool m_long = false;        // its memory is taken from long_lines()
  bool m_skips_line = false;  // in the middle of a line that is too long
  bool m_last = false;        // closing: the next m_left bytes are the last
  size_t m_left = 0;
  listener_closure_t *m_prev = nullptr, *m_next = nullptr;  // in the thread's list
};

thread_local listener_closure_t *connections_of_thread = nullptr;

listener_closure_t::~listener_closure_t() {
  drop_beginning();
  (m_prev ? m_prev->m_next : connections_of_thread) = m_next;
  if (m_next) m_next->m_prev = m_prev;
  if (m_armed) krelev_remove_fd(m_event);
  krelev_free(m_event);
  ::close(m_fd);
  open_connections--;
}

void listener_closure_t::start() {
  m_event = krelev_alloc_fd(m_fd, KRELEV_READ, on_event, this);
  krelev_set_owner(m_event, pthread_self());
  m_next = connections_of_thread;
  if (m_next) m_next->m_prev = this;
  connections_of_thread = this;
  go_on(next_e::read);
  if (closing.load()) finish();
}

// May end the connection.
void listener_closure_t::finish() {
  int bytes = 0;
  m_last = true;
  m_left = ::ioctl(m_fd, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<size_t>(bytes) : 0;
  if (m_left == 0 && m_armed) delete this;
}

void listener_closure_t::finish_all() {
  for (listener_closure_t *each = connections_of_thread, *next; each; each = next) {
    next = each->m_next;
    each->finish();
  }
}

void listener_closure_t::go_on(next_e next) {
  if (next == next_e::end) {
    delete this;
  } else if (next == next_e::read) {
    m_armed = true;
    krelev_set_mask(m_event, KRELEV_READ);
    krelev_add(m_event);
  }
}

int listener_closure_t::on_event(krelev_event_t, int, void *closure, const struct timeval *) {
  auto *self = static_cast<listener_closure_t *>(closure);
  const next_e next = self->listener_handler();
  if (next == next_e::read) return KRELEV_READ;
  if (next == next_e::end)
    delete self;
  else
    self->m_armed = false;
  return 0;
}

listener_closure_t::next_e listener_closure_t::listener_handler() {
  if (raw::raw_put_budget().try_take(m_limit)) return read_lines();
  // leaves the loop; who gives memory back posts it here again
  const auto granted = [this] { krelev_post(m_owner, [this] { go_on(read_lines()); }); };
  if (raw::raw_put_budget().take_or_wait(m_limit, granted)) granted();
  return next_e::wait;
}

// With m_limit bytes taken from the budget.
listener_closure_t::next_e listener_closure_t::read_lines() {
  thread_local std::vector<char> buffer;
  const size_t room = std::min(m_limit - m_beginning.size(), m_last ? m_left : m_limit);
  if (buffer.size() < room) buffer.resize(room);
  const ssize_t n = closed.load() ? 0 : ::recv(m_fd, buffer.data(), room, 0);
  const int error = errno;
  std::string lines;
  if (n > 0) {
    m_left -= std::min(m_left, static_cast<size_t>(n));
    take_lines({buffer.data(), static_cast<size_t>(n)}, &lines);
  }
  raw::raw_put_budget().give_back(m_limit - lines.size());
  if (n == 0) return next_e::end;
  if (n < 0 && error != EAGAIN && error != EINTR) {
    krel_log(log_error(), "READ ERROR! %d, bailing\n", error);
    return next_e::end;
  }
  if (lines.empty()) return all_is_taken() ? next_e::end : next_e::read;
  hand_out(std::move(lines));
  return next_e::wait;
}

// Cuts behind the last newline. What follows it is kept.
void listener_closure_t::take_lines(std::string_view bytes, std::string *lines) {
  if (m_skips_line) {
    const size_t newline = bytes.find('\n');
    if (newline == bytes.npos) return;
    bytes.remove_prefix(newline + 1);
    m_skips_line = false;
  }
  const size_t last = bytes.rfind('\n');
  if (last == bytes.npos) {
    keep(bytes);
    return;
  }
  lines->reserve(m_beginning.size() + last + 1);
  lines->append(m_beginning).append(bytes.substr(0, last + 1));
  drop_beginning();
  keep(bytes.substr(last + 1));
}

// Appends to the beginning of a line. One that is too long, or for which there is no memory, is one error; it
// is dropped up to its newline.
void listener_closure_t::keep(std::string_view beginning) {
  const size_t size = m_beginning.size() + beginning.size();
  if (size > ORDINARY_LINE && !m_long && size < m_limit) {
    m_long = long_lines().try_take(m_limit);
    if (m_long) m_beginning.reserve(m_limit);
  }
  if (size <= ORDINARY_LINE || (m_long && size < m_limit)) {
    m_beginning.append(beginning);
    return;
  }
  krel_log(log_error(), "a line of more than %zu bytes is refused\n", size);
  count_dropped_line();
  drop_beginning();
  m_skips_line = true;
}

void listener_closure_t::drop_beginning() {
  m_beginning.clear();
  if (!m_long) return;
  m_beginning.shrink_to_fit();
  long_lines().give_back(m_limit);
  m_long = false;
}

void listener_closure_t::hand_out(std::string lines) {
  raw::ingestion_gate_mgr_c::count_read();
  put_lines(m_config.source, std::move(lines), [this](const atomic_counters_t &counters) {
    // comes back to the loop
    krelev_post(m_owner, [this, errors = counters.errors.load(), noti = counters.noti.load()] {
      listener_put_callback_closure_cleanup(errors, noti);
    });
  });
}

void listener_closure_t::listener_put_callback_closure_cleanup(uint32_t errors, uint32_t noti) {
  if (errors != 0) krel_log(log_error(), "listener: Failed to ingest %u records\n", errors);
  if (noti != 0) krel_log(log_debug(), "listener: %u records misdelivered\n", noti);
  go_on(all_is_taken() ? next_e::end : next_e::read);
}

}  // namespace

void connections_init() {
  krelev_name_callback("graphite", listener_closure_t::on_event);
}

void connection_serve(int fd, const listener_config_t &config) {
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  auto *connection = new listener_closure_t(fd, config);
  krelev_post(connection->owner(), [connection] { connection->start(); });
}

int connections_open() {
  return open_connections.load();
}

void connections_close() {
  closing = true;
  for (int i = 0; i < krelev_loop_concurrency(); i++)
    krelev_post(krelev_choose_owner(i), [] { listener_closure_t::finish_all(); });
  for (int waited_us = 0; open_connections.load() > 0; waited_us += static_cast<int>(CLOSE_POLL_US)) {
    if (waited_us >= CLOSE_TIMEOUT_S * 1000000) {
      krel_log(log_error(), "stopping with %d graphite connections still open after %d s\n",
               open_connections.load(), CLOSE_TIMEOUT_S);
      break;
    }
    ::usleep(CLOSE_POLL_US);
  }
  closed = true;
}

}  // namespace be::graphite
