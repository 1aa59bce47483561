#include "util/concurrency/queue_mgr.h"

#include <exception>

#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"

namespace util::concurrency {

namespace {

void record_ns(stats_handle_t *handle, std::chrono::steady_clock::duration span) {
  if (!handle) return;
  stats_set_hist_intscale(handle, std::chrono::duration_cast<std::chrono::nanoseconds>(span).count(), -9, 1);
}

void run_guarded(task_c &function) {
  try {
    function();
  } catch (const std::exception &error) {
    krel_log(krel_error, "executor: a function threw: %s\n", error.what());
  } catch (...) {
    krel_log(krel_error, "executor: a function threw something that is no std::exception\n");
  }
}

}  // namespace

queue_mgr_c::queue_mgr_c(const queue_stats_t &stats)
    : _njobs_handle(stats.njobs), _wait_hist_handle(stats.wait_hist), _run_hist_handle(stats.run_hist) {}

bool queue_mgr_c::add(task_c &&function) {
  {
    krel_lock_c lock(_mutex);
    if (_closed) return false;
    _queue.emplace_back(std::chrono::steady_clock::now(), std::move(function));
  }
  if (_njobs_handle) stats_add64(_njobs_handle, 1);
  return true;
}

bool queue_mgr_c::take(std::pair<time_point_t, task_c> *out) {
  krel_lock_c lock(_mutex);
  if (_queue.empty()) return false;
  *out = std::move(_queue.front());
  _queue.pop_front();
  return true;
}

uint64_t queue_mgr_c::work() {
  uint64_t done = 0;
  for (std::pair<time_point_t, task_c> job; done < k_most_at_once && take(&job); ++done) {
    const time_point_t start = std::chrono::steady_clock::now();
    record_ns(_wait_hist_handle, start - job.first);
    run_guarded(job.second);
    job.second = task_c();  // what it captured ends here and not with the next job
    record_ns(_run_hist_handle, std::chrono::steady_clock::now() - start);
  }
  if (done > 0 && _njobs_handle) stats_add64(_njobs_handle, -static_cast<int64_t>(done));
  return done;
}

void queue_mgr_c::close() {
  krel_lock_c lock(_mutex);
  _closed = true;
}

size_t queue_mgr_c::size() const {
  krel_lock_c lock(_mutex);
  return _queue.size();
}

}  // namespace util::concurrency
