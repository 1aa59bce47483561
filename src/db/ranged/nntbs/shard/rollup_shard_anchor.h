#pragma once
// What outlives a shard object: the lock of its storage, its place and the statistics of its period.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/krel/base/thread_annotations.h"
#include "platform/tolvmetrics/stats.h"

namespace db::ranged::nntbs {

// A shared mutex for work that may take long. Whoever wants it exclusively comes before those who come later to
// share it, so a stream of readers never keeps a resize waiting; a shared hold may end on another thread than
// it began on. Not recursive: a thread that shares it and asks again can wait for ever.
class CAPABILITY("shared_mutex") rollup_io_mutex_c {
 public:
  void lock() ACQUIRE() {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    m_changed.wait(lock, [this] { return free(); });
    --m_waiting;
    m_exclusive = true;
  }
  bool try_lock_for(std::chrono::milliseconds timeout) TRY_ACQUIRE(true) {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    const bool got = m_changed.wait_for(lock, timeout, [this] { return free(); });
    --m_waiting;
    if (got)
      m_exclusive = true;
    else if (m_waiting == 0)
      m_changed.notify_all();  // who came to share it meanwhile waits for nobody now
    return got;
  }
  void unlock() RELEASE() {
    const std::lock_guard lock(m_mutex);
    m_exclusive = false;
    m_changed.notify_all();
  }
  void lock_shared() ACQUIRE_SHARED() {
    std::unique_lock lock(m_mutex);
    if (m_exclusive || m_waiting > 0) m_changed.wait(lock, [this] { return !m_exclusive && m_waiting == 0; });
    ++m_shared;
  }
  void unlock_shared() RELEASE_SHARED() {
    const std::lock_guard lock(m_mutex);
    if (--m_shared == 0 && m_waiting > 0) m_changed.notify_all();
  }

 private:
  bool free() const { return !m_exclusive && m_shared == 0; }

  std::mutex m_mutex;  // guards all below
  std::condition_variable m_changed;
  unsigned m_shared = 0, m_waiting = 0;  // holders who share it; who waits for it exclusively
  bool m_exclusive = false;
};

class SCOPED_CAPABILITY rollup_io_lock_c {
 public:
  explicit rollup_io_lock_c(rollup_io_mutex_c &mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~rollup_io_lock_c() RELEASE() { m_mutex.unlock(); }
  rollup_io_lock_c(const rollup_io_lock_c &) = delete;
  rollup_io_lock_c &operator=(const rollup_io_lock_c &) = delete;

 private:
  rollup_io_mutex_c &m_mutex;
};

class SCOPED_CAPABILITY rollup_io_shared_lock_c {
 public:
  explicit rollup_io_shared_lock_c(rollup_io_mutex_c &mutex) ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
    m_mutex.lock_shared();
  }
  ~rollup_io_shared_lock_c() RELEASE_GENERIC() { m_mutex.unlock_shared(); }
  rollup_io_shared_lock_c(const rollup_io_shared_lock_c &) = delete;
  rollup_io_shared_lock_c &operator=(const rollup_io_shared_lock_c &) = delete;

 private:
  rollup_io_mutex_c &m_mutex;
};

// Seconds, by period; null: nobody counts.
struct rollup_shard_latency_t {
  stats_handle_t *get = nullptr, *put = nullptr, *put_transactions = nullptr;
};

struct rollup_shard_anchor_c {
  // Transactions share it for the whole of their life; open, close, resize and delete hold it exclusively.
  rollup_io_mutex_c _mutex;
  const std::string _shard_path;
  const rollup_shard_latency_t latency;

  rollup_shard_anchor_c(std::string path, const rollup_shard_latency_t &handles)
      : _shard_path(std::move(path)), latency(handles) {}
};

}  // namespace db::ranged::nntbs
