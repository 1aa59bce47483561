#include "util/concurrency/idle_strategy.h"

#include <gtest/gtest.h>

#include <thread>

#include "util/concurrency/agent.h"

using namespace util::concurrency;

namespace {

constexpr uint64_t k_never_ns = 3600ull * 1'000'000'000;  // a park that only a wake-up ends in a test's time

TEST(idle_strategy, spins_then_yields_then_parks_ever_longer) {
  cv_back_off_idle_strategy_c strategy(10, 20, 1000, 1000000);
  strategy.idle(0);
  for (int i = 0; i < 11; ++i) {
    EXPECT_EQ(strategy.state(), backoff_state_e::spinning) << i;
    strategy.idle(0);
  }
  for (int i = 0; i < 21; ++i) {
    EXPECT_EQ(strategy.state(), backoff_state_e::yielding) << i;
    strategy.idle(0);
  }
  for (uint64_t expected = 1000; expected < 1000000; expected *= 2) {
    EXPECT_EQ(strategy.state(), backoff_state_e::parking);
    EXPECT_EQ(strategy.park_period_ns(), expected);
    strategy.idle(0);
  }
  EXPECT_EQ(strategy.park_period_ns(), 1000000u);
  strategy.idle(0);
  EXPECT_EQ(strategy.park_period_ns(), 1000000u);
  strategy.idle(1);
  EXPECT_EQ(strategy.state(), backoff_state_e::start);
  EXPECT_EQ(strategy.park_period_ns(), 1000u);
}

TEST(idle_strategy, a_wake_up_before_the_park_skips_it_and_restarts_the_doubling) {
  cv_back_off_idle_strategy_c strategy(0, 0, 1000, 2000, k_never_ns);
  for (int i = 0; i < 5; ++i) strategy.idle(0);
  ASSERT_EQ(strategy.park_period_ns(), k_never_ns);
  EXPECT_FALSE(strategy.wake_up());  // nobody is parked
  strategy.idle(0);
  EXPECT_EQ(strategy.park_period_ns(), 1000u);
}

// An agent that parks for ever at once, and a producer that hands it one item at a time: a lost wake-up
// stops both.
class counting_agent_c : public agent_c {
 public:
  void on_start() override { ++started; }
  void on_close() override { ++closed; }
  uint64_t work() override {
    const uint64_t wanted = given.load();
    const uint64_t did = wanted - taken.load();
    taken.store(wanted);
    return did;
  }
  std::atomic<uint64_t> given{0}, taken{0};
  std::atomic<int> started{0}, closed{0};
};

TEST(agent_runner, no_wake_up_is_lost_to_an_agent_on_its_way_to_sleep) {
  counting_agent_c agent;
  cv_back_off_idle_strategy_c strategy(0, 0, 1, 1, k_never_ns);
  agent_runner_c runner(agent, strategy, "agent-test");
  EXPECT_FALSE(runner.is_started());
  runner.start();
  for (uint64_t i = 1; i <= 20000; ++i) {
    agent.given.store(i);
    strategy.wake_up();
    while (agent.taken.load() != i) std::this_thread::yield();
  }
  runner.close();
  EXPECT_TRUE(runner.is_started() && runner.is_closed());
  EXPECT_FALSE(runner.is_running());
  EXPECT_EQ(agent.started, 1);
  EXPECT_EQ(agent.closed, 1);
  runner.close();
  EXPECT_EQ(agent.closed, 1);
}

TEST(agent_runner, run_works_on_the_callers_thread_until_it_is_closed) {
  class closing_agent_c : public agent_c {
   public:
    uint64_t work() override {
      if (++passes == 3) runner->close();
      return 1;
    }
    agent_runner_c *runner = nullptr;
    int passes = 0;
  } agent;
  cv_back_off_idle_strategy_c strategy(10, 20, 1000, 1000000);
  agent_runner_c runner(agent, strategy, "inline");
  agent.runner = &runner;
  runner.run();
  EXPECT_EQ(agent.passes, 3);
}

}  // namespace
