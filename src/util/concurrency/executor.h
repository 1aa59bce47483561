#pragma once
// A fixed number of threads that run functions.
//
// Operation: with a queue per thread, functions given to one queue index run in order, one at a time;
// with a shared queue any free thread takes the next. A thread without work parks and costs no CPU.
// Lifecycle: threads start in the constructor. close() (and the destructor) refuses new functions, runs
// what was queued, and joins the threads. A function may submit further ones.

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "util/concurrency/agent.h"
#include "util/concurrency/queue_mgr.h"
#include "util/concurrency/single_barrier.h"

namespace util::concurrency {

using idle_strategy_factory_t = std::function<std::unique_ptr<idle_strategy_c>()>;

// The strategy of the stores' agents: 10 spins, 20 yields, parks of 1 us to 1 ms, then asleep until woken.
std::unique_ptr<idle_strategy_c> default_idle_strategy();

enum class executor_queues_e { per_thread, shared };

class executor_agent_c : public agent_c {
 public:
  executor_agent_c(const void *executor, queue_mgr_c &queue_mgr) : _executor(executor), _queue_mgr(queue_mgr) {}
  void on_start() override;
  uint64_t work() override { return _queue_mgr.work(); }
  void on_close() override {
    while (_queue_mgr.work() > 0) {
    }
  }

 private:
  const void *_executor;
  queue_mgr_c &_queue_mgr;
};

class executor_c {
 public:
  // `number_of_threads` is a power of two. Statistics go to the node's recorder, below "executors", tagged
  // functional-group:group_name. Threads are named "group_name/i", i from 0.
  executor_c(const std::string &group_name, uint32_t number_of_threads,
             const idle_strategy_factory_t &idle_strategy_factory = default_idle_strategy,
             executor_queues_e queues = executor_queues_e::per_thread);
  ~executor_c();
  executor_c(const executor_c &) = delete;
  executor_c &operator=(const executor_c &) = delete;

  // From any thread. Round robin over the queues, or the queue of that index (modulo their number).
  // False once closed: the function is dropped unrun.
  bool submit(task_c function);
  bool submit(task_c function, uint32_t queue_index);
  // Runs what is in one queue on the calling thread, then yields. Returns how many it ran.
  uint64_t process(uint32_t queue_index);
  void close();  // not on a thread of this executor

  uint32_t number_of_threads() const { return static_cast<uint32_t>(_runners.size()); }
  bool on_own_thread() const;  // is the caller one of this executor's threads?

 private:
  void wake(uint32_t index);

  // Fixed after construction.
  std::vector<std::unique_ptr<queue_mgr_c>> _queue_mgr;  // one, or one per thread
  std::vector<std::unique_ptr<executor_agent_c>> _agents;
  std::vector<std::unique_ptr<idle_strategy_c>> _idle_strategies;
  std::vector<std::unique_ptr<agent_runner_c>> _runners;

  std::atomic<uint32_t> _task_no{0};
};

namespace detail {
void assert_may_wait_for(const executor_c &executor);
}

// Runs the function on the executor and waits for its result, on a thread that may block and is not one
// of the executor's own. What the function throws is thrown here; std::runtime_error when the executor is
// closed.
template <typename F>
auto submit_on(executor_c &executor, F &&function, std::optional<uint32_t> queue_index = {})
    -> std::invoke_result_t<F &> {
  using result_t = std::invoke_result_t<F &>;
  using slot_t = std::conditional_t<std::is_void_v<result_t>, char, std::optional<result_t>>;
  detail::assert_may_wait_for(executor);
  slot_t slot{};
  std::exception_ptr thrown;
  single_barrier_c barrier(1);
  auto job = [&] {
    try {
      if constexpr (std::is_void_v<result_t>)
        function();
      else
        slot.emplace(function());
    } catch (...) {
      thrown = std::current_exception();
    }
    barrier.count_down();
  };
  const bool taken = queue_index ? executor.submit(job, *queue_index) : executor.submit(job);
  if (!taken) throw std::runtime_error("executor is closed");
  barrier.wait();
  if (thrown) std::rethrow_exception(thrown);
  if constexpr (!std::is_void_v<result_t>) return std::move(*slot);
}

}  // namespace util::concurrency
