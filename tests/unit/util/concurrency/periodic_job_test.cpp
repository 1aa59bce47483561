#include "util/concurrency/periodic_job.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "util/concurrency/tolv_timed_mock.h"

namespace {

struct periodic_job : testing::Test {
  tolv_timed_mock::factory_c timers;
  std::vector<std::function<void()>> queue;
  const periodic_job_c::run_f run = [this](std::function<void()> job) { queue.push_back(std::move(job)); };
  int done = 0;

  tolv_timed_mock::runner_c &runner() {
    return *static_cast<tolv_timed_mock::runner_c *>(timers.get_default_runner());
  }
};

TEST_F(periodic_job, runs_every_period_and_never_twice_at_once) {
  periodic_job_c job(&timers, run, 60, [this] { ++done; });
  runner().run_until({59, 0});
  EXPECT_TRUE(queue.empty());
  runner().run_until({60, 0});
  ASSERT_EQ(queue.size(), 1U);
  runner().run_until({180, 0});  // the first is still at work
  ASSERT_EQ(queue.size(), 1U);
  queue[0]();
  EXPECT_EQ(done, 1);
  runner().run_until({239, 0});
  EXPECT_EQ(queue.size(), 1U);
  runner().run_until({240, 0});
  ASSERT_EQ(queue.size(), 2U);
  queue[1]();
  EXPECT_EQ(done, 2);
}

TEST_F(periodic_job, ends_after_a_job_under_way) {
  auto job = std::make_unique<periodic_job_c>(&timers, run, 1, [this] { ++done; });
  runner().run_until({1, 0});
  ASSERT_EQ(queue.size(), 1U);
  std::thread worker([this] { queue[0](); });
  job.reset();  // waits for it
  EXPECT_EQ(done, 1);
  worker.join();
  EXPECT_EQ(runner().pending(), 0U);
  runner().run_until({10, 0});
  EXPECT_EQ(queue.size(), 1U);
}

}  // namespace
