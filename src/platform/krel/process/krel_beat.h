#pragma once
// The memory that monitor and child share.

#include <atomic>
#include <cstdint>

struct krel_beat_t {
  std::atomic<uint64_t> beat_ns{0};   // monotonic; when every loop had last turned
  std::atomic<bool> watching{false};  // the child beats
  std::atomic<int32_t> disabled{0};   // open krel_watchdog_disable_all
  std::atomic<bool> started{false};   // the child's start is over
  std::atomic<bool> stopping{false};  // the child ends in order: it need not beat
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

// A process's own, until the monitor's is given.
krel_beat_t *krel_beat();
void krel_beat_share(krel_beat_t *beat);
// Mapped memory that a fork shares; lives as long as the process. Null when there is none.
krel_beat_t *krel_beat_map();
