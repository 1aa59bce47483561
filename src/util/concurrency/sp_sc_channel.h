#pragma once
// A bounded channel from one producer thread to one consumer thread. The consumer takes the lock once per
// batch, not once per element.

#include <condition_variable>
#include <optional>
#include <utility>
#include <vector>

#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/cv_wait.h"

namespace util::concurrency {

template <typename T>
class sp_sc_channel_c {
 public:
  // `capacity` bounds what waits to be fetched; the batch the consumer is walking comes on top of it.
  explicit sp_sc_channel_c(size_t capacity) : _capacity(capacity ? capacity : 1) {
    _filling.reserve(_capacity);
    _draining.reserve(_capacity);
  }

  // Producer. Blocks while full. False after shutdown: `value` is then untouched and still the caller's.
  bool send_wait(T &&value) {
    bool was_empty;
    {
      krel_lock_c lock(_m);
      while (_filling.size() >= _capacity && !_shutdown) cv_wait(_cv_not_full, _m);
      if (_shutdown) return false;
      was_empty = _filling.empty();
      _filling.push_back(std::move(value));
    }
    if (was_empty) _cv_not_empty.notify_one();
    return true;
  }
  bool send_wait(const T &value) {
    T copy(value);
    return send_wait(std::move(copy));
  }

  // Consumer. The next element, or none when there is none now.
  std::optional<T> recv() { return receive(false); }
  // Consumer. Blocks for the next element; none once shut down and everything sent has been received.
  std::optional<T> recv_wait() { return receive(true); }

  // Any thread: ends both sides' waiting. What was sent can still be received.
  void shutdown() {
    {
      krel_lock_c lock(_m);
      _shutdown = true;
    }
    _cv_not_empty.notify_all();
    _cv_not_full.notify_all();
  }

 private:
  std::optional<T> receive(bool wait) {
    if (_position == _draining.size() && !refill(wait)) return std::nullopt;
    return std::optional<T>(std::move(_draining[_position++]));
  }

  bool refill(bool wait) {
    _draining.clear();
    _position = 0;
    {
      krel_lock_c lock(_m);
      while (wait && _filling.empty() && !_shutdown) cv_wait(_cv_not_empty, _m);
      _filling.swap(_draining);
    }
    if (_draining.empty()) return false;
    _cv_not_full.notify_one();
    return true;
  }

  const size_t _capacity;
  // The consumer's alone.
  std::vector<T> _draining;
  size_t _position = 0;  // next to read in _draining

  krel_mutex_c _m;
  std::vector<T> _filling GUARDED_BY(_m);
  bool _shutdown GUARDED_BY(_m) = false;
  std::condition_variable _cv_not_empty, _cv_not_full;
};

}  // namespace util::concurrency
