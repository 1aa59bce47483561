#pragma once
// Run this at that time. Production stands on loop timers (tolv_timed_krel.h); tests turn the clock by
// hand (tolv_timed_mock.h). Times are wall-clock.

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace tolv_timed {

class clock_c {
 public:
  virtual ~clock_c() = default;
  virtual void get_time(struct timeval *now) = 0;
  virtual int64_t get_time_s() = 0;
  int64_t get_time_ms();
};

class std_clock_c : public clock_c {
 public:
  static std_clock_c &get_instance();
  void get_time(struct timeval *now) override;
  int64_t get_time_s() override;
};

class cb_c;
// Runs on the runner's thread. Ends with `return cb->returning_free();` or
// `return cb->returning_resched(when);`.
using callback_t = int (*)(cb_c *cb, void *closure, const struct timeval *now);

// A callback that can be scheduled, at most once at a time. Counted: the creator has one reference, a
// pending timer holds another, so a pointer with a reference stays valid whatever the timer does.
class cb_c {
 public:
  virtual void set_timeout(const struct timeval &when) = 0;       // while not scheduled
  virtual int returning_free() = 0;                               // from the callback: do not run again
  virtual int returning_resched(const struct timeval &when) = 0;  // from the callback: run again then
  virtual void *get_closure() = 0;

  void ref() { m_references.fetch_add(1, std::memory_order_relaxed); }
  void deref() {
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 protected:
  virtual ~cb_c() = default;

 private:
  std::atomic<int> m_references{1};
};

struct cb_deref_t {
  void operator()(cb_c *cb) const { cb->deref(); }
};
using cb_ptr_t = std::unique_ptr<cb_c, cb_deref_t>;

class runner_c {
 public:
  virtual ~runner_c() = default;
  // The callback runs at its timeout (a past one: soon), once. From any thread.
  virtual void schedule(cb_c *cb) = 0;
  // True: it was pending and now will not run. False: it runs now, has run, or was not scheduled.
  virtual bool try_cancel(cb_c *cb) = 0;
};

class factory_c {
 public:
  virtual ~factory_c() = default;
  virtual clock_c *get_clock() = 0;
  virtual runner_c *get_default_runner() = 0;
  // One after the other of the runners other than the default one. From any thread.
  virtual runner_c *get_round_robin_runner() = 0;
  virtual int get_num_round_robin_runners() = 0;
  virtual cb_ptr_t create_cb(callback_t callback, void *closure) = 0;
};

}  // namespace tolv_timed
