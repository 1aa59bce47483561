#pragma once
// Memory and life of a timer event; see krelev_timer.h for why.

#include <atomic>

#include "platform/krel/event/krelev_event.h"

enum class krelev_timer_state_e : uint32_t { unused, held, armed, firing, cancelled };

class krelev_timer_slot_c : public krelev_event_s {
 public:
  krelev_timer_slot_c();
  // A timer in state held.
  static krelev_event_t make(krelev_callback_t callback, void *closure, int64_t when_us);
  static krelev_timer_slot_c *of(krelev_event_t handle) {
    return static_cast<krelev_timer_slot_c *>(krelev_event_of(handle));
  }
  // Moves the timer of that handle on; false when it is not in state `from` or the handle is stale.
  static bool move(krelev_event_t handle, krelev_timer_state_e from, krelev_timer_state_e to);
  static bool is(krelev_event_t handle, krelev_timer_state_e state);
  // Gives the slot back if it is in state `from`; every handle to it is stale from now on.
  static bool release(krelev_event_t handle, krelev_timer_state_e from);

  int64_t when_us = 0;

 private:
  friend class krelev_timer_slots_c;
  static uint32_t word(krelev_event_t handle, krelev_timer_state_e state);

  std::atomic<uint32_t> m_word{0};  // generation in the upper half, state in the lower
  krelev_timer_slot_c *m_next_unused = nullptr;
};
