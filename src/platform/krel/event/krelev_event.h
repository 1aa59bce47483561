#pragma once
// What all events have in common. Kinds derive from it; a timer's handle is not its plain address
// (see krelev_timer.h), so handles are turned into objects by krelev_event_of only.

#include "platform/krel/event/krelev.h"

class krelev_loop_c;

enum class krelev_kind_e : uint8_t { fd, timer, recurrent, asynch };

struct krelev_event_s {
  krelev_event_s(krelev_kind_e kind_, int mask_, krelev_callback_t callback_, void *closure_);

  krelev_callback_t callback;
  void *closure;
  krelev_loop_c *loop;  // owner
  int mask;
  krelev_kind_e kind;
};

constexpr unsigned k_krelev_handle_bits = 48;  // address bits of a handle; above is a timer's generation

inline krelev_event_s *krelev_event_of(krelev_event_t handle) {
  constexpr uintptr_t address = (uintptr_t{1} << k_krelev_handle_bits) - 1;
  return reinterpret_cast<krelev_event_s *>(reinterpret_cast<uintptr_t>(handle) & address);
}

// One per kind: starts the event; frees one that is not added.
void krelev_fd_add(krelev_event_s *event);
void krelev_fd_free(krelev_event_s *event);
void krelev_timer_add(krelev_event_t handle);
void krelev_timer_free(krelev_event_t handle);
void krelev_recurrent_add(krelev_event_s *event);
void krelev_recurrent_free(krelev_event_s *event);
void krelev_asynch_free(krelev_event_s *event);
