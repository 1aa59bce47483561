#pragma once
// One thread sleeps, others wake it: a flag on a futex. A wake before the wait is not lost.

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

class krelev_futex_c {
 public:
  static constexpr uint64_t k_forever = UINT64_MAX;

  // Waits until wake was called since the last successful wait; false when the time is over.
  bool wait(uint64_t timeout_ns) {
    if (m_flag.exchange(0, std::memory_order_acquire) != 0) return true;
    struct timespec timeout = {static_cast<time_t>(timeout_ns / 1000000000),
                               static_cast<long>(timeout_ns % 1000000000)};
    syscall(SYS_futex, &m_flag, FUTEX_WAIT_PRIVATE, 0, timeout_ns == k_forever ? nullptr : &timeout, nullptr,
            0);
    return m_flag.exchange(0, std::memory_order_acquire) != 0;  // an interrupted wait counts as timed out
  }

  void wake() {
    if (m_flag.exchange(1, std::memory_order_release) == 0)
      syscall(SYS_futex, &m_flag, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }

 private:
  std::atomic<uint32_t> m_flag{0};
};
