#pragma once
// Many producers hand values to one consumer, which takes everything there is at once.

#include <utility>
#include <vector>

#include "platform/krel/base/thread_annotations.h"

namespace util::concurrency {

template <typename T>
class mp_sc_smart_batcher_c {
 public:
  // Any thread. True when the value is the first of a batch: the moment to wake the consumer.
  bool add(T value) {
    krel_lock_c lock(_mutex);
    _filling.push_back(std::move(value));
    return _filling.size() == 1;
  }

  // Consumer. All that was added since the last take, in order of adding; the consumer's to change, and
  // valid until the next take.
  std::vector<T> &take() {
    _draining.clear();
    krel_lock_c lock(_mutex);
    _filling.swap(_draining);
    return _draining;
  }

 private:
  std::vector<T> _draining;  // the consumer's alone
  krel_mutex_c _mutex;
  std::vector<T> _filling GUARDED_BY(_mutex);
};

}  // namespace util::concurrency
