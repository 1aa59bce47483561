#pragma once
// tolv_asynch step by step: jobs wait in a list until the caller runs them, in order of adding, on its own
// thread. add() may come from any thread; stepping from one.

#include <deque>

#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/tolv_asynch.h"
#include "util/concurrency/tolv_timed.h"

namespace tolv_asynch_mock {

class runner_c : public tolv_asynch::runner_c {
 public:
  // A backlog of 0 is no limit.
  explicit runner_c(tolv_timed::clock_c &clock = tolv_timed::std_clock_c::get_instance(), uint32_t backlog = 0)
      : m_clock(clock), m_backlog(backlog) {}
  ~runner_c() override;  // runs what is left
  void add(krelev_event_t event) override;
  bool try_add(krelev_event_t event) override;

  size_t pending() const;
  bool step();       // runs the first job's work, clean-up and completion; false when there is none
  size_t run_all();  // steps until none is left, those added on the way too; returns how many ran

 private:
  tolv_timed::clock_c &m_clock;
  const uint32_t m_backlog;
  mutable krel_mutex_c m_mutex;
  std::deque<krelev_event_t> m_events GUARDED_BY(m_mutex);
};

class factory_c : public tolv_asynch::factory_c {
 public:
  explicit factory_c(tolv_timed::clock_c &clock = tolv_timed::std_clock_c::get_instance())
      : m_clock(clock), m_default(clock) {}
  runner_c *get_default_runner() override { return &m_default; }
  runner_c *create_runner(const std::string &name, const tolv_asynch::runner_params_t &params) override;
  void free_runner(tolv_asynch::runner_c *runner) override;
  krelev_event_t create_cb(krelev_callback_t callback, void *closure) override;

 private:
  tolv_timed::clock_c &m_clock;
  runner_c m_default;
};

}  // namespace tolv_asynch_mock
