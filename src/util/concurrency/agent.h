#pragma once
// A unit of repeated work and the thread that drives it.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "util/concurrency/idle_strategy.h"

namespace util::concurrency {

// All operations are called on the runner's thread.
class agent_c {
 public:
  virtual ~agent_c() = default;
  virtual void on_start() {}
  virtual void on_close() {}
  virtual uint64_t work() = 0;  // how much it did; 0 lets the thread idle
};

// Created, started, running, closed. The agent and the strategy outlive the runner; close() comes before
// the runner's end (the destructor does it).
class agent_runner_c {
 public:
  agent_runner_c(agent_c &agent, idle_strategy_c &idle_strategy, std::string thread_name);
  ~agent_runner_c();
  agent_runner_c(const agent_runner_c &) = delete;
  agent_runner_c &operator=(const agent_runner_c &) = delete;

  void start();  // once: makes the thread, which calls run()
  void run();    // the loop itself, on the calling thread, until close()
  void close();  // ends the loop and joins the thread. Idempotent; not on the runner's own thread

  bool is_started() const { return _started.load(); }
  bool is_running() const { return _running.load(); }
  bool is_closed() const { return _closed.load(); }

 private:
  agent_c &_agent;
  idle_strategy_c &_idle_strategy;
  const std::string _thread_name;
  std::atomic<bool> _started{false}, _running{false}, _closed{false};
  std::thread _thread;
};

}  // namespace util::concurrency
