#pragma once
// Waiting on a plain condition variable with an annotated mutex. The caller holds the mutex and holds it
// again afterwards; waits may end spuriously.

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/krel/base/thread_annotations.h"

namespace util::concurrency {

inline void cv_wait(std::condition_variable &cv, krel_mutex_c &mutex) REQUIRES(mutex) {
  std::unique_lock<std::mutex> lock(mutex.native(), std::adopt_lock);
  cv.wait(lock);
  lock.release();
}

// False when the time has come.
inline bool cv_wait_until(std::condition_variable &cv, krel_mutex_c &mutex,
                          std::chrono::steady_clock::time_point when) REQUIRES(mutex) {
  std::unique_lock<std::mutex> lock(mutex.native(), std::adopt_lock);
  const bool notified = cv.wait_until(lock, when) == std::cv_status::no_timeout;
  lock.release();
  return notified;
}

}  // namespace util::concurrency
