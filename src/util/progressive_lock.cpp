#include "util/progressive_lock.h"

#include <sched.h>

#include <algorithm>

namespace {

// Longer with every turn; a thread that has waited a while lets the holder have its core.
void wait_turn(unsigned &turns) {
  if (++turns > 16) {
    sched_yield();
    return;
  }
  for (unsigned i = 0; i < (1U << std::min(turns, 7U)); i++) __builtin_ia32_pause();
}

}  // namespace

// The fast path has added its share already; it is taken back while waiting.
void progressive_lock_c::read_lock_slow() {
  unsigned turns = 0;
  do {
    m_word.fetch_sub(READ, std::memory_order_relaxed);
    do wait_turn(turns);
    while (m_word.load(std::memory_order_relaxed) >= WRITE);
  } while (m_word.fetch_add(READ, std::memory_order_acquire) >= WRITE);
}

void progressive_lock_c::seek_lock_slow() {
  unsigned turns = 0;
  do {
    m_word.fetch_sub(SEEK, std::memory_order_relaxed);
    do wait_turn(turns);
    while (m_word.load(std::memory_order_relaxed) >> 32);
  } while (m_word.fetch_add(SEEK, std::memory_order_acquire) >> 32);
}

void progressive_lock_c::upgrade_slow() {
  unsigned turns = 0;
  while ((m_word.load(std::memory_order_acquire) & READERS) != READ) wait_turn(turns);
}
