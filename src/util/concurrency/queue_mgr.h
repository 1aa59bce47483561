#pragma once
// One queue of functions with its statistics. Any thread adds; the threads that call work() run.

#include <chrono>
#include <cstdint>
#include <deque>
#include <utility>

#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/task.h"

struct stats_handle_t;

namespace util::concurrency {

// Where a queue counts; null handles are passed over.
struct queue_stats_t {
  stats_handle_t *njobs = nullptr;      // jobs waiting or running
  stats_handle_t *wait_hist = nullptr;  // seconds from add to start
  stats_handle_t *run_hist = nullptr;   // seconds from start to end
};

class queue_mgr_c {
 public:
  explicit queue_mgr_c(const queue_stats_t &stats = {});

  // False, and the function is not taken, once the queue is closed.
  bool add(task_c &&function);
  // Runs what is queued, in order, until the queue is empty or a good many have run, so that a queue that
  // is never empty cannot keep its thread from its other duties; returns how many ran: 0 is an empty queue.
  // A function that throws is logged and counts as run.
  uint64_t work();
  void close();
  size_t size() const;

 private:
  static constexpr uint64_t k_most_at_once = 1024;
  using time_point_t = std::chrono::steady_clock::time_point;
  bool take(std::pair<time_point_t, task_c> *out);

  stats_handle_t *const _njobs_handle, *const _wait_hist_handle, *const _run_hist_handle;
  mutable krel_mutex_c _mutex;
  std::deque<std::pair<time_point_t, task_c>> _queue GUARDED_BY(_mutex);
  bool _closed GUARDED_BY(_mutex) = false;
};

}  // namespace util::concurrency
