#include "util/concurrency/agent.h"

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"

namespace util::concurrency {

agent_runner_c::agent_runner_c(agent_c &agent, idle_strategy_c &idle_strategy, std::string thread_name)
    : _agent(agent), _idle_strategy(idle_strategy), _thread_name(std::move(thread_name)) {}

agent_runner_c::~agent_runner_c() {
  close();
}

void agent_runner_c::start() {
  krel_assert(!_started.exchange(true));
  _thread = std::thread([this] {
    krel_thread_setname(_thread_name.c_str());
    run();
  });
}

void agent_runner_c::run() {
  krel_memory_init_thread();
  _running.store(true);
  _agent.on_start();
  while (!_closed.load()) {
    _idle_strategy.idle(_agent.work());
    krel_memory_maintenance_ex(2);
  }
  _agent.on_close();
  _running.store(false);
  krel_memory_fini_thread();
}

void agent_runner_c::close() {
  _closed.store(true);
  _idle_strategy.wake_up();
  if (!_thread.joinable()) return;
  krel_assert(_thread.get_id() != std::this_thread::get_id());
  _thread.join();
}

}  // namespace util::concurrency
