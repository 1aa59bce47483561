#include "util/concurrency/periodic_job.h"

#include <utility>

periodic_job_c::periodic_job_c(tolv_timed::factory_c *timers, run_f run, uint64_t period_s,
                               std::function<void()> job)
    : m_state(std::make_shared<state_t>()) {
  m_state->timers = timers;
  m_state->run = std::move(run);
  m_state->period_s = period_s;
  m_state->job = std::move(job);
  const std::lock_guard lock(m_state->mutex);
  arm(m_state);
}

periodic_job_c::~periodic_job_c() {
  std::unique_lock lock(m_state->mutex);
  m_state->stopped = true;
  if (m_state->timer && m_state->timers->get_default_runner()->try_cancel(m_state->timer.get()))
    delete static_cast<std::shared_ptr<state_t> *>(m_state->timer->get_closure());
  m_state->idle.wait(lock, [this] { return !m_state->running; });
}

void periodic_job_c::arm(const std::shared_ptr<state_t> &state) {
  struct timeval when;
  state->timers->get_clock()->get_time(&when);
  when.tv_sec += static_cast<time_t>(state->period_s);
  state->timer = state->timers->create_cb(timed_out, new std::shared_ptr<state_t>(state));
  state->timer->set_timeout(when);
  state->timers->get_default_runner()->schedule(state->timer.get());
}

int periodic_job_c::timed_out(tolv_timed::cb_c *cb, void *closure, const struct timeval *) {
  const std::unique_ptr<std::shared_ptr<state_t>> own(static_cast<std::shared_ptr<state_t> *>(closure));
  const std::shared_ptr<state_t> state = *own;
  bool start = false;
  {
    const std::lock_guard lock(state->mutex);
    if (!state->stopped) {
      arm(state);
      start = !std::exchange(state->running, true);
    }
  }
  if (start)
    state->run([state] {
      state->job();
      const std::lock_guard lock(state->mutex);
      state->running = false;
      state->idle.notify_all();
    });
  return cb->returning_free();
}
