#pragma once
// tolv_asynch on the spot: add() runs the job's work, clean-up and completion on the calling thread
// before it returns. Needs no loops and no queues.

#include "util/concurrency/tolv_asynch.h"
#include "util/concurrency/tolv_timed.h"

namespace tolv_asynch_immediate {

class runner_c : public tolv_asynch::runner_c {
 public:
  explicit runner_c(tolv_timed::clock_c &clock) : m_clock(clock) {}
  void add(krelev_event_t event) override;
  bool try_add(krelev_event_t event) override;

 private:
  tolv_timed::clock_c &m_clock;
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

}  // namespace tolv_asynch_immediate
