#include "platform/krel/event/krelev_loop.h"

#include <event2/event.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_aco.h"
#include "platform/krel/event/krelev_aco_stack.h"
#include "platform/krel/event/krelev_fd.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_recurrent.h"

namespace {

constexpr uint64_t k_longest_wait_ns = 1000000000;  // a loop beats at least once a second
constexpr uint64_t k_recurrent_wait_ns = 10000000;
constexpr uint64_t k_maintain_every_ns = 1000000;
constexpr uint64_t k_trim_every_ns = 1000000000;
constexpr uint64_t k_poll_every_ns = 20000;  // fds wait so long for a loop that is busy with tasks

thread_local krelev_loop_c *t_current = nullptr;

// Only the loop's own thread touches its base: no locks in it.
event_base *new_base() {
  event_config *config = event_config_new();
  krel_assert(config != nullptr);
  event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);  // else moments are off by some milliseconds
  event_base *base = event_base_new_with_config(config);
  event_config_free(config);
  krel_assert(base != nullptr);
  return base;
}

}  // namespace

krelev_loop_c::krelev_loop_c(krelev_pool_t *pool, std::string name)
    : m_base(new_base()),
      m_wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_aco_stacks(std::make_unique<krelev_aco_stacks_c>()),
      m_pool(pool),
      m_name(std::move(name)) {
  if (m_wake_fd < 0) krel_fatal("eventfd for the loop %s: %s\n", m_name.c_str(), strerror(errno));
  // Edge-triggered: each write is an event of its own and the counter never has to be read.
  m_wake_event = event_new(
      m_base, m_wake_fd, EV_READ | EV_PERSIST | EV_ET, [](evutil_socket_t, short, void *) {}, nullptr);
  m_tick_event = evtimer_new(
      m_base, [](evutil_socket_t, short, void *loop) { static_cast<krelev_loop_c *>(loop)->m_tick_ns = 0; },
      this);
  krel_assert(m_wake_event != nullptr && m_tick_event != nullptr);
  krel_assert(event_add(m_wake_event, nullptr) == 0);
}

krelev_loop_c::~krelev_loop_c() {
  for (krelev_task_c *task = m_inbox.take_all(); task != nullptr;) {
    krelev_task_c *next = task->next;
    task->drop();
    task = next;
  }
  m_timers.drop_all();
  for (krelev_event_s *event : m_recurrents) krelev_recurrent_free(event);
  while (m_fd_events != nullptr) krelev_fd_drop(m_fd_events);
  event_free(m_wake_event);
  event_free(m_tick_event);
  event_base_free(m_base);
  close(m_wake_fd);
}

krelev_loop_c *krelev_loop_c::current() {
  return t_current;
}

bool krelev_in_loop() {
  return t_current != nullptr;
}

void krelev_loop_c::wake() {
  uint64_t one = 1;
  ssize_t written = write(m_wake_fd, &one, sizeof one);
  krel_assert(written == sizeof one);
}

void krelev_loop_c::stop() {
  krelev_post_on(this, [this] { m_stopping = true; });
}

void krelev_loop_c::run() {
  t_current = this;
  krel_thread_setname(m_name.c_str());
  krel_memory_init_thread();
  m_last_turn_ns.store(krel_gethrtime(), std::memory_order_relaxed);
  while (!m_stopping) turn();
  wind_up();
  krel_memory_fini_thread();
  t_current = nullptr;
}

void krelev_loop_c::wind_up() {
  do {
    while (run_inbox()) {
    }
    krelev_aco_end_all(*this);
  } while (!m_inbox.empty());
}

void krelev_loop_c::turn() {
  run_inbox();
  run_timers();
  bool recurrents_busy = run_recurrents();
  uint64_t now = krel_gethrtime();
  m_last_turn_ns.store(now, std::memory_order_relaxed);
  m_turns.store(turns() + 1, std::memory_order_relaxed);
  maintain(now);
  if (m_stopping) return;
  if (m_inbox.empty())
    wait_for_work(recurrents_busy);
  else if (now - m_polled_ns > k_poll_every_ns)
    poll_fds();
}

bool krelev_loop_c::run_inbox() {
  krelev_task_c *task = m_inbox.take_all();
  if (task == nullptr) return false;
  uint64_t before = tasks();
  while (task != nullptr) {
    krelev_task_c *next = task->next;
    m_tasks.store(tasks() + 1, std::memory_order_release);
    task->run(*this);
    task = next;
  }
  m_events.store(events() + tasks() - before, std::memory_order_relaxed);
  return true;
}

bool krelev_loop_c::run_timers() {
  unsigned fired = 0;
  if (!m_timers.empty()) fired = m_timers.run_due(static_cast<int64_t>(krel_now_us()));
  if (!m_sleepers.empty()) {
    auto now_us = static_cast<int64_t>(krel_gethrtime() / 1000);
    for (size_t present = m_sleepers.size(); present > 0 && m_sleepers.next_us() <= now_us; --present) {
      krelev_aco_resume(m_sleepers.pop());
      ++fired;
    }
  }
  m_events.store(events() + fired, std::memory_order_relaxed);
  return fired > 0;
}

bool krelev_loop_c::run_recurrents() {
  bool busy = false;
  for (size_t i = 0; i < m_recurrents.size(); ++i) busy |= krelev_recurrent_run(m_recurrents[i]);
  return busy;
}

// The inbox was empty just now: looks again for some microseconds if that has paid of late, then sleeps
// in the base until an fd is ready, a task arrives or the next moment is due.
void krelev_loop_c::wait_for_work(bool recurrents_busy) {
  uint64_t from = krel_gethrtime();
  if (m_spin.worthwhile()) {
    if (from - m_polled_ns > k_poll_every_ns) {
      uint64_t before = events();
      poll_fds();
      if (events() != before) return;
    }
    if (krelev_spin_c::spin(from, krel_gethrtime, [&] { return !m_inbox.empty(); })) {
      m_spin.gap(0);
      return;
    }
  }
  arm_tick(krel_gethrtime(), recurrents_busy);
  if (!m_inbox.announce_sleep()) return;
  event_base_loop(m_base, EVLOOP_ONCE);
  m_polled_ns = krel_gethrtime();
  m_spin.gap(m_polled_ns - from);
}

void krelev_loop_c::poll_fds() {
  event_base_loop(m_base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
  m_polled_ns = krel_gethrtime();
}

// Sees to it that a sleep in the base ends in time for the next timer. A tick that is due earlier is
// left as it is: a needless turn is cheaper than arming anew each time.
void krelev_loop_c::arm_tick(uint64_t now_ns, bool recurrents_busy) {
  uint64_t wait = recurrents_busy ? k_recurrent_wait_ns : k_longest_wait_ns;
  auto shorten = [&wait](int64_t us) {
    uint64_t ns = us <= 0 ? 0 : us >= 1000000 ? k_longest_wait_ns : static_cast<uint64_t>(us) * 1000;
    if (ns < wait) wait = ns;
  };
  if (!m_timers.empty()) shorten(m_timers.next_us() - static_cast<int64_t>(krel_now_us()));
  if (!m_sleepers.empty()) shorten(m_sleepers.next_us() - static_cast<int64_t>(now_ns / 1000));
  if (m_tick_ns != 0 && m_tick_ns <= now_ns + wait) return;
  m_tick_ns = now_ns + wait;
  struct timeval timeout = krelev_timeval(static_cast<int64_t>((wait + 999) / 1000));
  event_add(m_tick_event, &timeout);
}

void krelev_loop_c::maintain(uint64_t now_ns) {
  if (now_ns - m_maintained_ns < k_maintain_every_ns) return;
  m_maintained_ns = now_ns;
  krel_memory_maintenance_ex(1);
  if (now_ns - m_trimmed_ns < k_trim_every_ns) return;
  m_trimmed_ns = now_ns;
  m_aco_stacks->trim();
}

void krelev_loop_c::sleep_aco(krelev_aco_c *aco, uint64_t ns) {
  // Rounded up: a sleep is never shorter than was asked for.
  m_sleepers.push(static_cast<int64_t>((krel_gethrtime() + ns + 999) / 1000), aco);
}
