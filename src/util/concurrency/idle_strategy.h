#pragma once
// What an agent's thread does when its agent found no work: spin, then yield, then park.

#include <atomic>
#include <condition_variable>
#include <cstdint>

#include "platform/krel/base/thread_annotations.h"

namespace util::concurrency {

class idle_strategy_c {
 public:
  virtual ~idle_strategy_c() = default;
  // Agent's thread only: `work_count` is what the agent's last work() did. May block when it is 0.
  virtual void idle(uint64_t work_count) = 0;
  // Any thread, after making work visible: an idle() that has begun or begins next returns soon, so no
  // wake-up is lost. True when the thread was parked and this call took it out. Never waits for a thread
  // that is working.
  virtual bool wake_up() = 0;
};

enum class backoff_state_e : uint8_t { start = 0, spinning = 1, yielding = 2, parking = 3 };

class cv_back_off_idle_strategy_c : public idle_strategy_c {
 public:
  // Parks double from min to max. `idle_park_ns`, when above max, is how long an agent stays parked once
  // the doubling has passed max: for agents that are always woken for new work, since it makes an idle
  // thread free. With 0 it goes on parking for max, which polls.
  cv_back_off_idle_strategy_c(uint64_t max_spins, uint64_t max_yields, uint64_t min_park_period_ns,
                              uint64_t max_park_period_ns, uint64_t idle_park_ns = 0);

  void idle(uint64_t work_count) override;
  bool wake_up() override;

  // Agent's thread only.
  backoff_state_e state() const { return _state; }
  uint64_t park_period_ns() const { return _park_period_ns; }  // of the next park

 private:
  void park();

  const uint64_t _max_spins, _max_yields, _min_park_period_ns, _max_park_period_ns, _idle_park_ns;
  // The agent's thread alone.
  uint64_t _spins = 0, _yields = 0, _park_period_ns;
  backoff_state_e _state = backoff_state_e::start;
  // Shared. A waker raises the count and then looks at _parked; the agent sets _parked and then looks at
  // the count: one of the two sees the other.
  std::atomic<uint32_t> _wake_up_count{0};
  std::atomic<bool> _parked{false};
  krel_mutex_c _mutex;  // orders the agent's last look at the count before a waker's notify
  std::condition_variable _cv;
};

}  // namespace util::concurrency
