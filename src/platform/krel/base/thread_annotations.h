#pragma once
// Clang's thread-safety attributes and lock types that carry them. Under g++ the attributes vanish.

#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define KREL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KREL_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) KREL_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY KREL_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) KREL_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) KREL_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KREL_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KREL_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KREL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KREL_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) KREL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KREL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KREL_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KREL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KREL_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) KREL_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KREL_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KREL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

class CAPABILITY("mutex") krel_mutex_c {
 public:
  void lock() ACQUIRE() { m_mutex.lock(); }
  void unlock() RELEASE() { m_mutex.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
  std::mutex &native() { return m_mutex; }

 private:
  std::mutex m_mutex;
};

class CAPABILITY("shared_mutex") krel_shared_mutex_c {
 public:
  void lock() ACQUIRE() { m_mutex.lock(); }
  void unlock() RELEASE() { m_mutex.unlock(); }
  void lock_shared() ACQUIRE_SHARED() { m_mutex.lock_shared(); }
  void unlock_shared() RELEASE_SHARED() { m_mutex.unlock_shared(); }

 private:
  std::shared_mutex m_mutex;
};

// Scoped lock of a krel_mutex_c; usable with std::condition_variable_any.
class SCOPED_CAPABILITY krel_lock_c {
 public:
  explicit krel_lock_c(krel_mutex_c &mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~krel_lock_c() RELEASE() {
    if (m_held) m_mutex.unlock();
  }
  void lock() ACQUIRE() {
    m_mutex.lock();
    m_held = true;
  }
  void unlock() RELEASE() {
    m_held = false;
    m_mutex.unlock();
  }
  krel_lock_c(const krel_lock_c &) = delete;
  krel_lock_c &operator=(const krel_lock_c &) = delete;

 private:
  krel_mutex_c &m_mutex;
  bool m_held = true;
};

class SCOPED_CAPABILITY krel_shared_lock_c {
 public:
  explicit krel_shared_lock_c(krel_shared_mutex_c &mutex) ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
    m_mutex.lock_shared();
  }
  ~krel_shared_lock_c() RELEASE_GENERIC() { m_mutex.unlock_shared(); }
  krel_shared_lock_c(const krel_shared_lock_c &) = delete;
  krel_shared_lock_c &operator=(const krel_shared_lock_c &) = delete;

 private:
  krel_shared_mutex_c &m_mutex;
};

class SCOPED_CAPABILITY krel_exclusive_lock_c {
 public:
  explicit krel_exclusive_lock_c(krel_shared_mutex_c &mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~krel_exclusive_lock_c() RELEASE() { m_mutex.unlock(); }
  krel_exclusive_lock_c(const krel_exclusive_lock_c &) = delete;
  krel_exclusive_lock_c &operator=(const krel_exclusive_lock_c &) = delete;

 private:
  krel_shared_mutex_c &m_mutex;
};
