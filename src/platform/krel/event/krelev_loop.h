#pragma once
// One loop: an event_base, the inbox of tasks from other threads, timers, recurrent events and
// coroutines, turned by one thread.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/krel/event/krelev_event.h"
#include "platform/krel/event/krelev_inbox.h"
#include "platform/krel/event/krelev_spin.h"
#include "platform/krel/event/krelev_timer.h"

struct event;
struct event_base;
struct krelev_fd_event_t;
class krelev_aco_c;
class krelev_aco_stacks_c;
class krelev_loop_c;

inline int64_t krelev_us(const struct timeval &time) {
  return int64_t{time.tv_sec} * 1000000 + time.tv_usec;
}
inline struct timeval krelev_timeval(int64_t us) {
  return {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// Something to do on a loop's thread, once. Exactly one of the two is called and disposes of it.
class krelev_task_c {
 public:
  virtual void run(krelev_loop_c &loop) = 0;
  virtual void drop() = 0;  // the loop has ended; on any thread
  krelev_task_c *next = nullptr;

 protected:
  ~krelev_task_c() = default;
};

class krelev_loop_c {
 public:
  krelev_loop_c(krelev_pool_t *pool, std::string name);
  ~krelev_loop_c();
  krelev_loop_c(const krelev_loop_c &) = delete;
  krelev_loop_c &operator=(const krelev_loop_c &) = delete;

  // ---- any thread
  static krelev_loop_c *current();  // the loop that the calling thread turns, or null
  void post(krelev_task_c *task) {
    if (m_inbox.push(task)) wake();
  }
  void stop();
  krelev_pool_t *pool() const { return m_pool; }
  pthread_t thread() const { return m_thread.load(std::memory_order_acquire); }
  void set_thread(pthread_t thread) { m_thread.store(thread, std::memory_order_release); }
  uint64_t events() const { return m_events.load(std::memory_order_relaxed); }
  uint64_t tasks() const { return m_tasks.load(std::memory_order_acquire); }  // begun
  uint64_t turns() const { return m_turns.load(std::memory_order_relaxed); }
  uint64_t last_turn_ns() const { return m_last_turn_ns.load(std::memory_order_relaxed); }  // 0: not begun

  // Turns until stop, on the calling thread; then ends the coroutines and drops what waits.
  void run();

  // ---- the loop's thread alone
  event_base *base() { return m_base; }
  // An event arrived through the base: from now on pushes need not wake this thread.
  void note_event() {
    m_inbox.end_sleep();
    m_events.store(events() + 1, std::memory_order_relaxed);
  }
  krelev_timers_c &timers() { return m_timers; }
  void add_recurrent(krelev_event_s *event) { m_recurrents.push_back(event); }
  void sleep_aco(krelev_aco_c *aco, uint64_t ns);
  krelev_aco_stacks_c &aco_stacks() { return *m_aco_stacks; }
  krelev_aco_c *&acos() { return m_acos; }                 // list of the living
  krelev_fd_event_t *&fd_events() { return m_fd_events; }  // list of the added

 private:
  void wake();
  void turn();
  bool run_inbox();
  bool run_timers();
  bool run_recurrents();  // true when some had work
  void wait_for_work(bool recurrents_busy);
  void poll_fds();
  void arm_tick(uint64_t now_ns, bool recurrents_busy);
  void maintain(uint64_t now_ns);
  void wind_up();

  // Written by producers.
  alignas(64) krelev_inbox_c<krelev_task_c> m_inbox;
  // The loop's own.
  alignas(64) event_base *m_base;
  int m_wake_fd;
  event *m_wake_event;
  event *m_tick_event;
  uint64_t m_tick_ns = 0;  // when the tick is due, 0 when not armed
  uint64_t m_polled_ns = 0;
  uint64_t m_maintained_ns = 0;
  uint64_t m_trimmed_ns = 0;
  bool m_stopping = false;
  krelev_spin_c m_spin;
  krelev_timers_c m_timers;
  krelev_heap_c<krelev_aco_c *> m_sleepers;  // by monotonic microseconds
  std::vector<krelev_event_s *> m_recurrents;
  krelev_fd_event_t *m_fd_events = nullptr;
  krelev_aco_c *m_acos = nullptr;
  std::unique_ptr<krelev_aco_stacks_c> m_aco_stacks;

  krelev_pool_t *m_pool;
  const std::string m_name;
  std::atomic<pthread_t> m_thread{};
  std::atomic<uint64_t> m_events{0};
  std::atomic<uint64_t> m_tasks{0};
  std::atomic<uint64_t> m_turns{0};
  std::atomic<uint64_t> m_last_turn_ns{0};
};
