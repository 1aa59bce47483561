#include "platform/krel/event/krelev_timer.h"

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev_loop.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_thread.h"
#include "platform/krel/event/krelev_timer_slot.h"

using state_e = krelev_timer_state_e;

namespace {

class add_timer_c final : public krelev_task_c {
 public:
  add_timer_c(krelev_event_t handle, int64_t when_us) : m_handle(handle), m_when_us(when_us) {}
  void run(krelev_loop_c &loop) override {
    loop.timers().add(m_handle, m_when_us);
    delete this;
  }
  void drop() override {
    krelev_timer_slot_c::release(m_handle, state_e::armed);
    delete this;
  }

 private:
  krelev_event_t m_handle;
  int64_t m_when_us;
};

}  // namespace

void krelev_timers_c::add(krelev_event_t handle, int64_t when_us) {
  if (!krelev_timer_slot_c::is(handle, state_e::armed)) return;  // cancelled on its way here
  m_heap.push(when_us, handle);
}

unsigned krelev_timers_c::run_due(int64_t now_us) {
  unsigned fired = 0;
  for (size_t present = m_heap.size(); present > 0 && m_heap.next_us() <= now_us; --present) {
    krelev_event_t handle = m_heap.pop();
    if (!krelev_timer_slot_c::move(handle, state_e::armed, state_e::firing)) continue;
    krelev_timer_slot_c *timer = krelev_timer_slot_c::of(handle);
    struct timeval now = krelev_timeval(now_us);
    krelev_guarded("timer", timer->callback,
                   [&] { timer->callback(handle, KRELEV_TIMER, timer->closure, &now); });
    krelev_timer_slot_c::release(handle, state_e::firing);
    ++fired;
  }
  if (m_cancelled.load(std::memory_order_relaxed) > 64) sweep_cancelled();
  return fired;
}

// Keeps the heap from filling with cancelled timers of far moments; amortised constant per cancel.
void krelev_timers_c::sweep_cancelled() {
  if (m_cancelled.load(std::memory_order_relaxed) < m_heap.size() / 2) return;
  m_cancelled.store(0, std::memory_order_relaxed);
  m_heap.remove_if([](krelev_event_t handle) { return !krelev_timer_slot_c::is(handle, state_e::armed); });
}

void krelev_timers_c::drop_all() {
  for (const auto &entry : m_heap.take_all()) krelev_timer_slot_c::release(entry.what, state_e::armed);
}

krelev_event_t krelev_alloc_timer(krelev_callback_t callback, void *closure, const struct timeval *when) {
  return krelev_timer_slot_c::make(callback, closure, krelev_us(*when));
}

void krelev_timer_add(krelev_event_t handle) {
  krelev_event_s *timer = krelev_event_of(handle);
  krelev_loop_c *loop = krelev_owner_of(timer);
  int64_t when_us = krelev_timer_slot_c::of(handle)->when_us;
  krel_assert(krelev_timer_slot_c::move(handle, state_e::held, state_e::armed));
  // From here on it may be cancelled, and gone.
  if (krelev_loop_c::current() == loop)
    loop->timers().add(handle, when_us);
  else
    loop->post(new add_timer_c(handle, when_us));
}

bool krelev_remove_timed(krelev_event_t event) {
  krel_assert(krelev_event_of(event)->kind == krelev_kind_e::timer);
  if (!krelev_timer_slot_c::move(event, state_e::armed, state_e::cancelled)) return false;
  krelev_event_of(event)->loop->timers().note_cancel();
  return true;
}

void krelev_timer_free(krelev_event_t handle) {
  krel_assert(krelev_timer_slot_c::release(handle, state_e::held) ||
              krelev_timer_slot_c::release(handle, state_e::cancelled));
}
