#include "util/concurrency/tolv_timed_mock.h"

#include "platform/krel/base/krel_log.h"

namespace tolv_timed_mock {

namespace {
int64_t to_us(const struct timeval &time) {
  return static_cast<int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
}
}  // namespace

int cb_c::returning_resched(const struct timeval &when) {
  m_timeout = when;
  m_runner->schedule(this);
  return 0;
}

runner_c::~runner_c() {
  for (auto &[key, cb] : m_pending) cb->deref();
}

void runner_c::schedule(tolv_timed::cb_c *callback) {
  auto *cb = static_cast<cb_c *>(callback);
  krel_assert(cb->m_number == 0);
  cb->m_number = ++m_last_number;
  cb->m_runner = this;
  cb->ref();
  m_pending.emplace(key_t(to_us(cb->m_timeout), cb->m_number), cb);
}

bool runner_c::try_cancel(tolv_timed::cb_c *callback) {
  auto *cb = static_cast<cb_c *>(callback);
  if (cb->m_number == 0) return false;
  krel_assert(m_pending.erase(key_t(to_us(cb->m_timeout), cb->m_number)) == 1);
  cb->m_number = 0;
  cb->deref();
  return true;
}

struct timeval runner_c::next() const {
  krel_assert(!m_pending.empty());
  return m_pending.begin()->second->m_timeout;
}

size_t runner_c::run_until(const struct timeval &until) {
  size_t fired = 0;
  struct timeval now;
  while (!m_pending.empty() && m_pending.begin()->first.first <= to_us(until)) {
    cb_c *cb = m_pending.begin()->second;
    m_pending.erase(m_pending.begin());
    m_clock.get_time(&now);
    if (to_us(cb->m_timeout) > to_us(now)) m_clock.set_time(cb->m_timeout);
    m_clock.get_time(&now);
    cb->m_number = 0;
    const tolv_timed::cb_ptr_t timers_reference(cb);
    cb->m_cb(cb, cb->m_closure, &now);
    ++fired;
  }
  m_clock.get_time(&now);
  if (to_us(until) > to_us(now)) m_clock.set_time(until);
  return fired;
}

tolv_timed::cb_ptr_t factory_c::create_cb(tolv_timed::callback_t callback, void *closure) {
  return tolv_timed::cb_ptr_t(new cb_c(callback, closure));
}

}  // namespace tolv_timed_mock
