#include "util/concurrency/executor.h"

#include <fmt/format.h>
#include <sched.h>

#include <bit>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace util {
namespace {
bool is_power_of_two(uint32_t number) {
  return std::has_single_bit(number);
}
}  // namespace
}  // namespace util

namespace util::concurrency {

namespace {

thread_local const void *t_executor = nullptr;  // whose thread this is

queue_stats_t register_stats(const std::string &group_name) {
  stats_recorder_t *recorder = velmar_stats_get_recorder();
  stats_ns_t *executors = stats_register_ns(recorder, nullptr, "executors");
  stats_ns_t *ns = stats_register_ns(recorder, executors, group_name.c_str());
  stats_ns_add_tag(ns, "functional-group", group_name.c_str());
  queue_stats_t stats;
  stats.njobs = stats_register(ns, "njobs", STATS_TYPE_GAUGE_U64);
  stats_handle_tagged_name(stats.njobs, "executors`njobs");
  stats.wait_hist = stats_register(ns, "wait", STATS_TYPE_HISTOGRAM);
  stats_handle_tagged_name(stats.wait_hist, "executors`wait");
  stats_handle_add_tag(stats.wait_hist, "units", "seconds");
  stats.run_hist = stats_register(ns, "run", STATS_TYPE_HISTOGRAM);
  stats_handle_tagged_name(stats.run_hist, "executors`run");
  stats_handle_add_tag(stats.run_hist, "units", "seconds");
  return stats;
}

}  // namespace

std::unique_ptr<idle_strategy_c> default_idle_strategy() {
  constexpr uint64_t k_idle_park_ns = 1'000'000'000;  // keeps deferred frees moving; work wakes it at once
  return std::make_unique<cv_back_off_idle_strategy_c>(10, 20, 1000, 1000000, k_idle_park_ns);
}

void executor_agent_c::on_start() {
  t_executor = _executor;
}

executor_c::executor_c(const std::string &group_name, uint32_t number_of_threads,
                       const idle_strategy_factory_t &idle_strategy_factory, executor_queues_e queues) {
  krel_assert(util::is_power_of_two(number_of_threads));
  const queue_stats_t stats = register_stats(group_name);
  const uint32_t number_of_queues = queues == executor_queues_e::shared ? 1 : number_of_threads;
  for (uint32_t i = 0; i < number_of_queues; ++i) _queue_mgr.push_back(std::make_unique<queue_mgr_c>(stats));
  for (uint32_t i = 0; i < number_of_threads; ++i) {
    _agents.push_back(std::make_unique<executor_agent_c>(this, *_queue_mgr[i & (number_of_queues - 1)]));
    _idle_strategies.push_back(idle_strategy_factory());
    _runners.push_back(std::make_unique<agent_runner_c>(*_agents[i], *_idle_strategies[i],
                                                        fmt::format("{}/{}", group_name, i)));
  }
  for (auto &runner : _runners) runner->start();
}

executor_c::~executor_c() {
  close();
}

bool executor_c::submit(task_c function) {
  return submit(std::move(function), _task_no.fetch_add(1, std::memory_order_relaxed));
}

bool executor_c::submit(task_c function, uint32_t queue_index) {
  const uint32_t queues = static_cast<uint32_t>(_queue_mgr.size());
  if (!_queue_mgr[queue_index & (queues - 1)]->add(std::move(function))) return false;
  wake(queue_index);
  return true;
}

void executor_c::wake(uint32_t index) {
  const uint32_t threads = number_of_threads();
  if (_queue_mgr.size() == threads) {
    _idle_strategies[index & (threads - 1)]->wake_up();
    return;
  }
  // One queue: a parked thread, wherever it is. With none parked all are awake and look again before they
  // park, since each has now been told.
  for (uint32_t i = 0; i < threads; ++i)
    if (_idle_strategies[(index + i) & (threads - 1)]->wake_up()) return;
}

uint64_t executor_c::process(uint32_t queue_index) {
  queue_mgr_c &queue = *_queue_mgr[queue_index & (_queue_mgr.size() - 1)];
  uint64_t done = 0;
  while (const uint64_t more = queue.work()) done += more;
  sched_yield();
  return done;
}

void executor_c::close() {
  krel_assert(!on_own_thread());
  for (auto &queue : _queue_mgr) queue->close();
  for (auto &runner : _runners) runner->close();
}

bool executor_c::on_own_thread() const {
  return t_executor == this;
}

void detail::assert_may_wait_for(const executor_c &executor) {
  krel_assert(!executor.on_own_thread());
#ifndef NDEBUG
  krel_assert(!krelev_in_loop());
#endif
}

}  // namespace util::concurrency
