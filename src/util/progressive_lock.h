#pragma once
// A reader-writer lock in one 64-bit word with a level in between: a seeker runs beside readers, alone among
// seekers and writers, and may upgrade to exclusive without anyone getting in before it.
//
// Low half: 4 per reader or seeker. High half: 1 per seeker, 4 per writer. Waiting spins, then yields: hold it
// for memory work only. The seek level counts as exclusive for Clang's analysis.

#include <atomic>
#include <cstdint>

#include "platform/krel/base/thread_annotations.h"

class CAPABILITY("progressive lock") progressive_lock_c {
 public:
  void read_lock() ACQUIRE_SHARED() {
    if (m_word.fetch_add(READ, std::memory_order_acquire) >= WRITE) read_lock_slow();
  }
  void read_unlock() RELEASE_SHARED() { m_word.fetch_sub(READ, std::memory_order_release); }

  void seek_lock() ACQUIRE() {
    if (m_word.fetch_add(SEEK, std::memory_order_acquire) >> 32) seek_lock_slow();
  }
  void seek_unlock() RELEASE() { m_word.fetch_sub(SEEK, std::memory_order_release); }
  // From the seek level to exclusive, waiting for the readers to go; and back.
  void upgrade() REQUIRES(this) {
    if ((m_word.fetch_add(WRITE, std::memory_order_acquire) & READERS) != READ) upgrade_slow();
  }
  void downgrade() REQUIRES(this) { m_word.fetch_sub(WRITE, std::memory_order_release); }

  void write_lock() ACQUIRE() {
    seek_lock();
    upgrade();
  }
  void write_unlock() RELEASE() { m_word.fetch_sub(WRITE + SEEK, std::memory_order_release); }

 private:
  static constexpr uint64_t READ = 4, READERS = 0xfffffffc;
  static constexpr uint64_t SEEK = 0x100000004, WRITE = 0x400000000;
  void read_lock_slow();
  void seek_lock_slow();
  void upgrade_slow();

  std::atomic<uint64_t> m_word = 0;
};

class SCOPED_CAPABILITY progressive_read_guard_c {
 public:
  explicit progressive_read_guard_c(progressive_lock_c &lock) ACQUIRE_SHARED(lock) : m_lock(lock) {
    m_lock.read_lock();
  }
  ~progressive_read_guard_c() RELEASE_GENERIC() { m_lock.read_unlock(); }
  progressive_read_guard_c(const progressive_read_guard_c &) = delete;
  progressive_read_guard_c &operator=(const progressive_read_guard_c &) = delete;

 private:
  progressive_lock_c &m_lock;
};
