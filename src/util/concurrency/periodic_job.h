#pragma once
// Something that is done every so often, away from the loops.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "util/concurrency/tolv_timed.h"

// Every period_s seconds, the first time a period from now, a timer hands the job to `run`, which runs it on a
// thread that may block. A job that is still at work when its time comes again is left to finish: that turn is
// passed over.
class periodic_job_c {
 public:
  using run_f = std::function<void(std::function<void()> job)>;
  periodic_job_c(tolv_timed::factory_c *timers, run_f run, uint64_t period_s, std::function<void()> job);
  ~periodic_job_c();  // waits for a job under way
  periodic_job_c(const periodic_job_c &) = delete;
  periodic_job_c &operator=(const periodic_job_c &) = delete;

 private:
  struct state_t {
    tolv_timed::factory_c *timers;
    run_f run;
    uint64_t period_s;
    std::function<void()> job;
    std::mutex mutex;  // guards all below
    std::condition_variable idle;
    tolv_timed::cb_ptr_t timer;
    bool running = false, stopped = false;
  };
  static void arm(const std::shared_ptr<state_t> &state);  // under its mutex
  static int timed_out(tolv_timed::cb_c *cb, void *closure, const struct timeval *now);

  const std::shared_ptr<state_t> m_state;
};
