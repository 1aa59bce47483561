#include "util/concurrency/tolv_asynch_mock.h"

#include "util/concurrency/tolv_asynch_immediate.h"

namespace tolv_asynch_mock {

runner_c::~runner_c() {
  run_all();
}

void runner_c::add(krelev_event_t event) {
  krel_lock_c lock(m_mutex);
  m_events.push_back(event);
}

bool runner_c::try_add(krelev_event_t event) {
  krel_lock_c lock(m_mutex);
  if (m_backlog && m_events.size() >= m_backlog) return false;
  m_events.push_back(event);
  return true;
}

size_t runner_c::pending() const {
  krel_lock_c lock(m_mutex);
  return m_events.size();
}

bool runner_c::step() {
  krelev_event_t event;
  {
    krel_lock_c lock(m_mutex);
    if (m_events.empty()) return false;
    event = m_events.front();
    m_events.pop_front();
  }
  tolv_asynch_immediate::runner_c(m_clock).add(event);
  return true;
}

size_t runner_c::run_all() {
  size_t ran = 0;
  while (step()) ++ran;
  return ran;
}

runner_c *factory_c::create_runner(const std::string &, const tolv_asynch::runner_params_t &params) {
  return new runner_c(m_clock, params.backlog);
}

void factory_c::free_runner(tolv_asynch::runner_c *runner) {
  if (runner != &m_default) delete runner;
}

krelev_event_t factory_c::create_cb(krelev_callback_t callback, void *closure) {
  return krelev_alloc_asynch(callback, closure);
}

}  // namespace tolv_asynch_mock
