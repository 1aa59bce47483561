#pragma once
// Bounds the memory of samples that are read but not yet stored, over all requests and connections: a reader
// takes bytes before it hands out a chunk and gets them back when the chunk's samples are stored. Who finds too
// little left waits in line, so that small requests are not starved by large ones.

#include <cstddef>
#include <deque>
#include <functional>

#include "platform/krel/base/thread_annotations.h"

namespace be::raw {

class raw_put_budget_c {
 public:
  explicit raw_put_budget_c(size_t bytes) : m_left(bytes), m_capacity(bytes) {}
  // Takes the bytes when they are there and nobody waits.
  bool try_take(size_t bytes);
  // The same; if not, false, and `granted` is called once, from any thread, when the bytes have been taken for
  // the caller. More than the whole budget counts as all of it.
  bool take_or_wait(size_t bytes, std::function<void()> granted);
  void give_back(size_t bytes);

 private:
  struct waiter_t {
    size_t bytes;
    std::function<void()> granted;
  };
  krel_mutex_c m_mutex;
  size_t m_left GUARDED_BY(m_mutex);
  std::deque<waiter_t> m_waiting GUARDED_BY(m_mutex);
  const size_t m_capacity;
};

// The one that everything which feeds the raw stores takes from: 96 MiB.
raw_put_budget_c &raw_put_budget();

}  // namespace be::raw
