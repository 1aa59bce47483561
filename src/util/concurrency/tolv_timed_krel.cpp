#include "util/concurrency/tolv_timed_krel.h"

#include <algorithm>

#include "platform/krel/base/krel_log.h"

namespace tolv_timed_krel {

void cb_c::set_timeout(const struct timeval &when) {
  krel_lock_c lock(m_mutex);
  krel_assert(m_e == nullptr);
  m_timeout = when;
}

int cb_c::returning_resched(const struct timeval &when) {
  runner_c *runner;
  {
    krel_lock_c lock(m_mutex);
    m_timeout = when;
    runner = m_runner;
  }
  runner->schedule(this);
  return 0;
}

void runner_c::schedule(tolv_timed::cb_c *callback) {
  auto *cb = static_cast<cb_c *>(callback);
  krel_lock_c lock(cb->m_mutex);  // held across the add, so that dispatch finds the event entered
  krel_assert(cb->m_e == nullptr);
  cb->m_runner = this;
  cb->m_e = krelev_alloc_timer(dispatch, cb, &cb->m_timeout);
  cb->ref();  // the timer's
  krelev_set_owner(cb->m_e, m_thr_owner());
  krelev_add(cb->m_e);
}

bool runner_c::try_cancel(tolv_timed::cb_c *callback) {
  auto *cb = static_cast<cb_c *>(callback);
  krelev_event_t event;
  {
    krel_lock_c lock(cb->m_mutex);
    event = cb->m_e;
    if (!event || !krelev_remove_timed(event)) return false;
    cb->m_e = nullptr;
  }
  krelev_free(event);
  cb->deref();
  return true;
}

int runner_c::dispatch(krelev_event_t event, int, void *closure, const struct timeval *now) {
  auto *cb = static_cast<cb_c *>(closure);
  {
    krel_lock_c lock(cb->m_mutex);
    krel_assert(event == cb->m_e);
    cb->m_e = nullptr;
  }
  const tolv_timed::cb_ptr_t timers_reference(cb);
  cb->m_cb(cb, cb->m_closure, now);
  return 0;
}

factory_c::factory_c() : m_num_runners(krelev_loop_concurrency() - 1) {
  for (int i = 0; i <= m_num_runners; ++i) m_runners.push_back(std::make_unique<runner_c>(i));
}

factory_c &factory_c::get_instance() {
  static factory_c instance;
  return instance;
}

tolv_timed::runner_c *factory_c::get_round_robin_runner() {
  if (m_num_runners == 0) return get_default_runner();  // a single loop
  const uint32_t turn = m_round_robin.fetch_add(1, std::memory_order_relaxed) - 1;
  return m_runners[1 + turn % static_cast<uint32_t>(m_num_runners)].get();
}

tolv_timed::cb_ptr_t factory_c::create_cb(tolv_timed::callback_t callback, void *closure) {
  return tolv_timed::cb_ptr_t(new cb_c(callback, closure));
}

}  // namespace tolv_timed_krel
