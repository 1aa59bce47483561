#pragma once
// A fetch-and-store spinlock of 4 bytes for sections of a few instructions: no I/O, no blocking inside.

#include "platform/krel/base/ck_cxx.h"
#include "platform/krel/base/thread_annotations.h"

#if defined(__SANITIZE_THREAD__)
#define VELMAR_SPINLOCK_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELMAR_SPINLOCK_TSAN 1
#endif
#endif
#ifdef VELMAR_SPINLOCK_TSAN
#include <sanitizer/tsan_interface.h>
#endif

class CAPABILITY("spinlock") spinlock_c {
 public:
  void lock() ACQUIRE() {
    ck_spinlock_fas_lock(&m_lock);
#ifdef VELMAR_SPINLOCK_TSAN
    __tsan_acquire(&m_lock);  // the lock's own instructions are invisible to the race detector
#endif
  }
  void unlock() RELEASE() {
#ifdef VELMAR_SPINLOCK_TSAN
    __tsan_release(&m_lock);
#endif
    ck_spinlock_fas_unlock(&m_lock);
  }

 private:
  ck_spinlock_fas_t m_lock = CK_SPINLOCK_FAS_INITIALIZER;
};

class SCOPED_CAPABILITY spinlock_guard_c {
 public:
  explicit spinlock_guard_c(spinlock_c &lock) ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
  ~spinlock_guard_c() RELEASE() { m_lock.unlock(); }
  spinlock_guard_c(const spinlock_guard_c &) = delete;
  spinlock_guard_c &operator=(const spinlock_guard_c &) = delete;

 private:
  spinlock_c &m_lock;
};
