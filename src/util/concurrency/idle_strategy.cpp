#include "util/concurrency/idle_strategy.h"

#include <sched.h>

#include <algorithm>
#include <chrono>

#include "util/concurrency/cv_wait.h"

namespace util::concurrency {

cv_back_off_idle_strategy_c::cv_back_off_idle_strategy_c(uint64_t max_spins, uint64_t max_yields,
                                                         uint64_t min_park_period_ns,
                                                         uint64_t max_park_period_ns, uint64_t idle_park_ns)
    : _max_spins(max_spins),
      _max_yields(max_yields),
      _min_park_period_ns(min_park_period_ns),
      _max_park_period_ns(std::max(max_park_period_ns, min_park_period_ns)),
      _idle_park_ns(idle_park_ns),
      _park_period_ns(min_park_period_ns) {}

void cv_back_off_idle_strategy_c::idle(uint64_t work_count) {
  if (work_count > 0) {
    _state = backoff_state_e::start;
    _park_period_ns = _min_park_period_ns;
    return;
  }
  switch (_state) {
    case backoff_state_e::start:
      _state = backoff_state_e::spinning;
      _spins = 0;
      break;
    case backoff_state_e::spinning:
      if (++_spins > _max_spins) {
        _state = backoff_state_e::yielding;
        _yields = 0;
      }
      break;
    case backoff_state_e::yielding:
      if (++_yields > _max_yields) {
        _state = backoff_state_e::parking;
        _park_period_ns = _min_park_period_ns;
      } else {
        sched_yield();
      }
      break;
    case backoff_state_e::parking:
      park();
      break;
  }
}

void cv_back_off_idle_strategy_c::park() {
  bool woken;
  {
    krel_lock_c lock(_mutex);
    const auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(_park_period_ns);
    _parked.store(true);
    while (_wake_up_count.load() == 0 && cv_wait_until(_cv, _mutex, until)) {
    }
    _parked.store(false);
    // Takes in what the waker did before it raised the count.
    woken = _wake_up_count.exchange(0) != 0;
  }
  if (woken) {
    _park_period_ns = _min_park_period_ns;
  } else if (_park_period_ns < _max_park_period_ns) {
    _park_period_ns = std::min(_park_period_ns * 2, _max_park_period_ns);
  } else if (_idle_park_ns > _max_park_period_ns) {
    _park_period_ns = _idle_park_ns;
  }
}

bool cv_back_off_idle_strategy_c::wake_up() {
  _wake_up_count.fetch_add(1);
  if (!_parked.load() || !_parked.exchange(false)) return false;
  // The agent has the mutex from raising _parked until it waits, a few instructions: passing through it
  // puts this notify behind the start of the wait.
  { krel_lock_c lock(_mutex); }
  _cv.notify_one();
  return true;
}

}  // namespace util::concurrency
