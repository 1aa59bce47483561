#pragma once
// tolv_timed on the timers of the loop pool "default". Use after krelev_init.

#include <pthread.h>

#include <atomic>
#include <memory>
#include <vector>

#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/tolv_timed.h"

namespace tolv_timed_krel {

class runner_c;

class cb_c : public tolv_timed::cb_c {
 public:
  cb_c(tolv_timed::callback_t callback, void *closure) : m_cb(callback), m_closure(closure) {}
  void set_timeout(const struct timeval &when) override;
  int returning_free() override { return 0; }
  int returning_resched(const struct timeval &when) override;
  void *get_closure() override { return m_closure; }

 private:
  friend class runner_c;
  const tolv_timed::callback_t m_cb;
  void *const m_closure;
  krel_mutex_c m_mutex;
  runner_c *m_runner GUARDED_BY(m_mutex) = nullptr;
  struct timeval m_timeout GUARDED_BY(m_mutex) = {};
  krelev_event_t m_e GUARDED_BY(m_mutex) = nullptr;  // the pending timer or none
};

class runner_c : public tolv_timed::runner_c {
 public:
  explicit runner_c(int loop_index) : m_loop_index(loop_index) {}
  void schedule(tolv_timed::cb_c *cb) override;
  bool try_cancel(tolv_timed::cb_c *cb) override;

 private:
  static int dispatch(krelev_event_t event, int mask, void *closure, const struct timeval *now);
  pthread_t m_thr_owner() const { return krelev_choose_owner(m_loop_index); }  // the loop that owns its timers
  const int m_loop_index;
};

class factory_c : public tolv_timed::factory_c {
 public:
  static factory_c &get_instance();
  tolv_timed::clock_c *get_clock() override { return &tolv_timed::std_clock_c::get_instance(); }
  tolv_timed::runner_c *get_default_runner() override { return m_runners[0].get(); }
  tolv_timed::runner_c *get_round_robin_runner() override;
  int get_num_round_robin_runners() override { return m_num_runners; }
  tolv_timed::cb_ptr_t create_cb(tolv_timed::callback_t callback, void *closure) override;

 private:
  factory_c();
  std::atomic<uint32_t> m_round_robin{1};
  int m_num_runners;                                 // loop threads minus 1
  std::vector<std::unique_ptr<runner_c>> m_runners;  // by loop thread
};

}  // namespace tolv_timed_krel
