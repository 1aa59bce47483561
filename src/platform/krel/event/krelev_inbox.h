#pragma once
// Hand-over of nodes from many threads to one reader: an intrusive lock-free stack that is taken whole
// and turned round, so each producer's nodes keep their order. T has a member `T *next`.

#include <atomic>

template <typename T>
class krelev_inbox_c {
 public:
  // From any thread. True when the reader announced sleep and it is this caller's part to wake it:
  // of all pushes after one announcement exactly one gets true.
  bool push(T *node) {
    T *head = m_head.load(std::memory_order_relaxed);
    do {
      node->next = head == asleep() ? nullptr : head;
    } while (!m_head.compare_exchange_weak(head, node, std::memory_order_seq_cst, std::memory_order_relaxed));
    return head == asleep();
  }

  bool empty() const {
    T *head = m_head.load(std::memory_order_seq_cst);
    return head == nullptr || head == asleep();
  }

  // ---- the reader alone
  // All that is there, oldest first, linked by `next`. Ends an announced sleep.
  T *take_all() {
    if (m_head.load(std::memory_order_relaxed) == nullptr) return nullptr;
    T *newest = m_head.exchange(nullptr, std::memory_order_acq_rel);
    if (newest == asleep()) return nullptr;
    T *oldest = nullptr;
    while (newest != nullptr) {
      T *next = newest->next;
      newest->next = oldest;
      oldest = newest;
      newest = next;
    }
    return oldest;
  }

  // Announces sleep; false when there is something to take instead.
  bool announce_sleep() {
    T *none = nullptr;
    return m_head.compare_exchange_strong(none, asleep(), std::memory_order_acq_rel, std::memory_order_relaxed);
  }

  void end_sleep() {
    T *sleep = asleep();
    if (m_head.load(std::memory_order_relaxed) == sleep)
      m_head.compare_exchange_strong(sleep, nullptr, std::memory_order_acq_rel, std::memory_order_relaxed);
  }

 private:
  static T *asleep() { return reinterpret_cast<T *>(alignof(T)); }  // no node has this address

  std::atomic<T *> m_head{nullptr};
};
