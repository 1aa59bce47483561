#pragma once
// Timers of one loop: heaps of moments with what is due then, and the memory of timer events.
//
// The memory of a timer event is never given back, only reused, and a handle carries the slot's
// generation in its upper 16 bits. So a cancel from any thread may name a timer that fired long ago: one
// compare-and-swap on the slot's word decides between cancel and fire, and a stale handle loses it.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/krel/event/krelev_event.h"

// Min-heap by moment, equal ones in order of insertion. One thread.
template <typename T>
class krelev_heap_c {
 public:
  struct entry_t {
    int64_t when_us;
    uint64_t order;
    T what;
  };

  void push(int64_t when_us, T what) {
    m_entries.push_back({when_us, m_order++, what});
    std::push_heap(m_entries.begin(), m_entries.end(), later);
  }
  T pop() {
    std::pop_heap(m_entries.begin(), m_entries.end(), later);
    T what = m_entries.back().what;
    m_entries.pop_back();
    return what;
  }
  bool empty() const { return m_entries.empty(); }
  size_t size() const { return m_entries.size(); }
  int64_t next_us() const { return m_entries.front().when_us; }
  template <typename Condition>
  void remove_if(Condition condition) {
    std::erase_if(m_entries, [&](const entry_t &entry) { return condition(entry.what); });
    std::make_heap(m_entries.begin(), m_entries.end(), later);
  }
  std::vector<entry_t> take_all() { return std::exchange(m_entries, {}); }

 private:
  static bool later(const entry_t &a, const entry_t &b) {
    return a.when_us != b.when_us ? a.when_us > b.when_us : a.order > b.order;
  }
  std::vector<entry_t> m_entries;
  uint64_t m_order = 0;
};

// The armed timers of a loop. All but note_cancel on the loop's thread.
class krelev_timers_c {
 public:
  void add(krelev_event_t handle, int64_t when_us);
  // Fires what is due now, not what callbacks add; returns the number.
  unsigned run_due(int64_t now_us);
  bool empty() const { return m_heap.empty(); }
  int64_t next_us() const { return m_heap.next_us(); }
  void note_cancel() { m_cancelled.fetch_add(1, std::memory_order_relaxed); }
  void drop_all();  // frees what has not fired

 private:
  void sweep_cancelled();

  krelev_heap_c<krelev_event_t> m_heap;  // cancelled ones stay until their time or a sweep
  std::atomic<uint32_t> m_cancelled{0};  // since the last sweep, by any thread
};
