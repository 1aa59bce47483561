#include "platform/krel/http/http_loop.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/http/http_connection.h"

namespace {

krel_mutex_c loops_lock;
std::vector<std::unique_ptr<http_loop_t>> &loops() REQUIRES(loops_lock) {
  static std::vector<std::unique_ptr<http_loop_t>> *all = new std::vector<std::unique_ptr<http_loop_t>>;
  return *all;
}

http_timeouts_t timeouts;
uint32_t tick_ms = 1000;

}  // namespace

const http_timeouts_t &http_timeouts() {
  return timeouts;
}

void http_timeouts_set(const http_timeouts_t &to) {
  timeouts = to;
  const uint32_t shortest = std::min({to.header_ms, to.idle_ms, to.body_ms, to.write_ms, to.linger_ms});
  tick_ms = std::clamp<uint32_t>(shortest / 4, 10, 1000);
}

int64_t http_in_flight() {
  krel_lock_c lock(loops_lock);
  int64_t sum = 0;
  for (const auto &loop : loops()) sum += loop->in_flight.load(std::memory_order_relaxed);
  return sum;
}

http_loop_t *http_loop_t::current() {
  thread_local http_loop_t *mine = nullptr;
  if (!mine) {
    auto fresh = std::make_unique<http_loop_t>();
    mine = fresh.get();
    krel_lock_c lock(loops_lock);
    loops().push_back(std::move(fresh));
  }
  return mine;
}

http_loop_t::http_loop_t() {
  for (auto &head : m_wheel) head.prev = head.next = &head;
}

http_loop_t::~http_loop_t() = default;

void http_loop_t::place(http_wheel_entry_t *entry) {
  // Farther than the wheel reaches, or without a deadline: looked at again after one round.
  uint32_t ticks = entry->deadline == 0 ? slots - 1 : entry->deadline - m_tick;
  if (entry->deadline != 0 && entry->deadline <= m_tick) ticks = 1;
  entry->placed = m_tick + std::min(ticks, slots - 1);
  http_wheel_entry_t *head = &m_wheel[entry->placed % slots];
  entry->prev = head->prev;
  entry->next = head;
  head->prev->next = entry;
  head->prev = entry;
}

void http_loop_t::link(http_wheel_entry_t *entry) {
  entry->deadline = 0;
  place(entry);
  m_linked++;
  if (!m_ticking) start_ticking();
}

void http_loop_t::unlink(http_wheel_entry_t *entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  entry->prev = entry->next = nullptr;
  m_linked--;
}

void http_loop_t::set_deadline(http_wheel_entry_t *entry, uint32_t milliseconds) {
  entry->deadline = m_tick + 1 + (milliseconds + tick_ms - 1) / tick_ms;
  if (entry->prev && entry->deadline < entry->placed) {
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    place(entry);
  }
}

// The wheel turns only while there are connections, by a monotonic timer.
void http_loop_t::start_ticking() {
  m_ticking = true;
  if (!krelev_in_loop()) return;
  if (!m_tick_event) {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    krel_assert(fd >= 0);
    m_tick_event = krelev_alloc_fd(fd, KRELEV_READ, on_tick, this);
    krelev_set_owner(m_tick_event, pthread_self());
    krelev_add(m_tick_event);
  }
  struct itimerspec every {};
  every.it_interval.tv_sec = tick_ms / 1000;
  every.it_interval.tv_nsec = static_cast<long>(tick_ms % 1000) * 1000000;
  every.it_value = every.it_interval;
  ::timerfd_settime(krelev_get_fd(m_tick_event), 0, &every, nullptr);
}

int http_loop_t::on_tick(krelev_event_t event, int mask, void *closure, const struct timeval *now) {
  auto *loop = static_cast<http_loop_t *>(closure);
  uint64_t times = 0;
  if (::read(krelev_get_fd(event), &times, sizeof(times)) != sizeof(times)) return KRELEV_READ;
  // After a long pause the peers get their time anew rather than all being dropped at once.
  for (uint64_t i = 0; i < std::min<uint64_t>(times, 4); i++) loop->advance();
  if (loop->m_linked == 0) {
    loop->m_ticking = false;
    const struct itimerspec off {};
    ::timerfd_settime(krelev_get_fd(event), 0, &off, nullptr);
  }
  return KRELEV_READ;
}

void http_loop_t::advance() {
  m_tick++;
  http_wheel_entry_t *head = &m_wheel[m_tick % slots];
  if (head->next == head) return;
  // The list is taken off first: what is placed again may come into this very slot.
  http_wheel_entry_t due;
  due.next = head->next;
  due.prev = head->prev;
  due.next->prev = due.prev->next = &due;
  head->next = head->prev = head;
  while (due.next != &due) {
    http_wheel_entry_t *entry = due.next;
    due.next = entry->next;
    entry->next->prev = &due;
    const bool over = entry->deadline != 0 && entry->deadline <= m_tick;
    if (over) entry->deadline = 0;
    place(entry);
    if (over) http_connection_of(entry)->on_deadline();
  }
}

std::string_view http_date_header() {
  thread_local struct {
    time_t second = -1;
    size_t length = 0;
    char text[40];
  } date;
  const time_t now = ::time(nullptr);
  if (now != date.second) {
    date.second = now;
    struct tm utc;
    ::gmtime_r(&now, &utc);
    date.length = ::strftime(date.text, sizeof(date.text), "Date: %a, %d %b %Y %H:%M:%S GMT\r\n", &utc);
  }
  return {date.text, date.length};
}

std::unique_ptr<krel_http_session_t> http_loop_t::take_session() {
  if (m_spare.empty()) return std::make_unique<krel_http_session_t>();
  auto session = std::move(m_spare.back());
  m_spare.pop_back();
  return session;
}

void http_loop_t::give_session(std::unique_ptr<krel_http_session_t> session) {
  if (m_spare.size() < spare_sessions) m_spare.push_back(std::move(session));
}
