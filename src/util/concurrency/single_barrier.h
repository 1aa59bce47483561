#pragma once
// Counts down to zero; then one waiter goes on. Count-downs before wait() happen before its return.

#include <atomic>
#include <cstdint>
#include <semaphore>

#include "platform/krel/base/krel_log.h"

namespace util::concurrency {

class single_barrier_c {
 public:
  explicit single_barrier_c(uint32_t count) : _sem(0), _remaining(count), _done(count == 0) {}
  single_barrier_c(const single_barrier_c &) = delete;
  single_barrier_c &operator=(const single_barrier_c &) = delete;

  // Any thread. The caller of the last one must not touch the barrier afterwards: the waiter may end it.
  void count_down(uint32_t amount = 1) {
    if (amount == 0) return;
    const uint32_t before = _remaining.fetch_sub(amount, std::memory_order_acq_rel);
    krel_assert(before >= amount);
    if (before == amount) _sem.release();
  }
  // One thread. Returns at once when called again.
  void wait() {
    if (_done) return;
    _sem.acquire();
    _done = true;
  }

 private:
  std::binary_semaphore _sem;
  std::atomic<uint32_t> _remaining;
  bool _done;  // the waiter's
};

}  // namespace util::concurrency
