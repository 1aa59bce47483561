#pragma once
// tolv_timed with a clock set by hand. Timers fire when the clock is moved past them, on the thread that
// moves it, in order of time and then of scheduling. Not for concurrent use.

#include <map>
#include <utility>

#include "util/concurrency/tolv_timed.h"

namespace tolv_timed_mock {

class clock_c : public tolv_timed::clock_c {
 public:
  void get_time(struct timeval *now) override { *now = m_now; }
  int64_t get_time_s() override { return m_now.tv_sec; }
  void set_time(const struct timeval &now) { m_now = now; }

 private:
  struct timeval m_now = {};
};

class runner_c;

class cb_c : public tolv_timed::cb_c {
 public:
  cb_c(tolv_timed::callback_t callback, void *closure) : m_cb(callback), m_closure(closure) {}
  void set_timeout(const struct timeval &when) override { m_timeout = when; }
  int returning_free() override { return 0; }
  int returning_resched(const struct timeval &when) override;
  void *get_closure() override { return m_closure; }

 private:
  friend class runner_c;
  const tolv_timed::callback_t m_cb;
  void *const m_closure;
  struct timeval m_timeout = {};
  runner_c *m_runner = nullptr;
  uint64_t m_number = 0;  // of its pending entry; 0: not scheduled
};

class runner_c : public tolv_timed::runner_c {
 public:
  explicit runner_c(clock_c &clock) : m_clock(clock) {}
  ~runner_c() override;  // drops what is pending
  void schedule(tolv_timed::cb_c *cb) override;
  bool try_cancel(tolv_timed::cb_c *cb) override;

  size_t pending() const { return m_pending.size(); }
  struct timeval next() const;  // time of the first pending timer; there must be one
  // Sets the clock to each due timer's time in turn and fires it, timers added on the way too, then sets
  // the clock to `until`. Returns how many fired.
  size_t run_until(const struct timeval &until);

 private:
  using key_t = std::pair<int64_t, uint64_t>;  // microseconds, number
  clock_c &m_clock;
  uint64_t m_last_number = 0;
  std::map<key_t, cb_c *> m_pending;
};

// One runner stands for all.
class factory_c : public tolv_timed::factory_c {
 public:
  clock_c *get_clock() override { return &m_clock; }
  runner_c *get_default_runner() override { return &m_runner; }
  runner_c *get_round_robin_runner() override { return &m_runner; }
  int get_num_round_robin_runners() override { return 1; }
  tolv_timed::cb_ptr_t create_cb(tolv_timed::callback_t callback, void *closure) override;

 private:
  clock_c m_clock;
  runner_c m_runner{m_clock};
};

}  // namespace tolv_timed_mock
