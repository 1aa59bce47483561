#include "platform/krel/event/krelev_timer_slot.h"

#include <memory>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev_pool.h"

// The unused slots, first in first out, so that a slot's generation goes round as seldom as can be.
class krelev_timer_slots_c {
 public:
  static krelev_timer_slots_c &get() {
    static auto *slots = new krelev_timer_slots_c;
    return *slots;
  }

  krelev_timer_slot_c *take() EXCLUDES(m_mutex) {
    krel_lock_c lock(m_mutex);
    if (m_unused <= k_reserve) add_chunk();
    krelev_timer_slot_c *slot = m_first;
    m_first = slot->m_next_unused;
    --m_unused;
    return slot;
  }

  void give(krelev_timer_slot_c *slot) EXCLUDES(m_mutex) {
    krel_lock_c lock(m_mutex);
    append(slot);
  }

 private:
  static constexpr size_t k_chunk = 512;
  static constexpr size_t k_reserve = 256;  // so many rest before one is used again

  void append(krelev_timer_slot_c *slot) REQUIRES(m_mutex) {
    slot->m_next_unused = nullptr;
    if (m_first == nullptr)
      m_first = slot;
    else
      m_last->m_next_unused = slot;
    m_last = slot;
    ++m_unused;
  }

  void add_chunk() REQUIRES(m_mutex) {
    m_chunks.push_back(std::make_unique<krelev_timer_slot_c[]>(k_chunk));
    for (size_t i = 0; i < k_chunk; ++i) append(&m_chunks.back()[i]);
  }

  krel_mutex_c m_mutex;
  krelev_timer_slot_c *m_first GUARDED_BY(m_mutex) = nullptr;
  krelev_timer_slot_c *m_last GUARDED_BY(m_mutex) = nullptr;
  size_t m_unused GUARDED_BY(m_mutex) = 0;
  std::vector<std::unique_ptr<krelev_timer_slot_c[]>> m_chunks GUARDED_BY(m_mutex);
};

namespace {

int no_callback(krelev_event_t, int, void *, const struct timeval *) {
  return 0;
}

uint32_t generation(krelev_event_t handle) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle) >> k_krelev_handle_bits);
}

}  // namespace

krelev_timer_slot_c::krelev_timer_slot_c()
    : krelev_event_s(krelev_kind_e::timer, KRELEV_TIMER, no_callback, nullptr) {}

uint32_t krelev_timer_slot_c::word(krelev_event_t handle, krelev_timer_state_e state) {
  return generation(handle) << 16 | static_cast<uint32_t>(state);
}

krelev_event_t krelev_timer_slot_c::make(krelev_callback_t callback, void *closure, int64_t when_us) {
  krel_assert(callback != nullptr);
  krelev_timer_slot_c *slot = krelev_timer_slots_c::get().take();
  slot->callback = callback;
  slot->closure = closure;
  slot->loop = krelev_default_owner();
  slot->when_us = when_us;
  uint32_t unused = slot->m_word.load(std::memory_order_relaxed);
  auto address = reinterpret_cast<uintptr_t>(slot);
  krel_assert(address >> k_krelev_handle_bits == 0);
  auto handle = reinterpret_cast<krelev_event_t>(address | uintptr_t{unused >> 16} << k_krelev_handle_bits);
  slot->m_word.store(word(handle, krelev_timer_state_e::held), std::memory_order_release);
  return handle;
}

bool krelev_timer_slot_c::move(krelev_event_t handle, krelev_timer_state_e from, krelev_timer_state_e to) {
  uint32_t expected = word(handle, from);
  return of(handle)->m_word.compare_exchange_strong(expected, word(handle, to), std::memory_order_acq_rel,
                                                    std::memory_order_relaxed);
}

bool krelev_timer_slot_c::is(krelev_event_t handle, krelev_timer_state_e state) {
  return of(handle)->m_word.load(std::memory_order_acquire) == word(handle, state);
}

bool krelev_timer_slot_c::release(krelev_event_t handle, krelev_timer_state_e from) {
  uint32_t expected = word(handle, from);
  uint32_t next = (generation(handle) + 1) << 16 | static_cast<uint32_t>(krelev_timer_state_e::unused);
  if (!of(handle)->m_word.compare_exchange_strong(expected, next, std::memory_order_acq_rel)) return false;
  krelev_timer_slots_c::get().give(of(handle));
  return true;
}
