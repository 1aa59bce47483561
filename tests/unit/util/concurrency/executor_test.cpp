#include "util/concurrency/executor.h"

#include <gtest/gtest.h>

#include <barrier>
#include <latch>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "platform/tolvmetrics/stats.h"
#include "support/log_capture.h"
#include "util/velmar_stats.h"

using namespace util::concurrency;

namespace {

TEST(task, moves_small_and_large_captures_and_ends_each_once) {
  auto counted = std::make_shared<int>(0);
  {
    task_c small([counted] { ++*counted; });
    std::array<char, 200> ballast{};
    task_c large([counted, ballast, owned = std::make_unique<int>(7)] { *counted += *owned + ballast[0]; });
    task_c moved(std::move(small));
    EXPECT_FALSE(small);
    moved();
    moved = std::move(large);
    EXPECT_EQ(counted.use_count(), 2);  // what it held before is gone
    moved();
  }
  EXPECT_EQ(*counted, 8);
  EXPECT_EQ(counted.use_count(), 1);
}

TEST(executor, eight_functions_over_four_threads_give_each_two) {
  executor_c executor("spread", 4);
  std::mutex mutex;
  std::map<std::thread::id, int> ran;
  std::latch done(8);
  for (int i = 0; i < 8; ++i)
    executor.submit([&] {
      {
        std::lock_guard lock(mutex);
        ++ran[std::this_thread::get_id()];
      }
      done.count_down();
    });
  done.wait();
  ASSERT_EQ(ran.size(), 4u);
  for (const auto &[thread, count] : ran) EXPECT_EQ(count, 2);
}

TEST(executor, functions_of_one_queue_index_run_in_order_on_one_thread) {
  executor_c executor("order", 4);
  constexpr int k_each = 2000;
  std::vector<std::vector<int>> seen(4);  // each touched by its queue's thread alone
  std::vector<std::thread> producers;
  for (uint32_t index = 0; index < 4; ++index)
    producers.emplace_back([&, index] {
      for (int i = 0; i < k_each; ++i) executor.submit([&seen, index, i] { seen[index].push_back(i); }, index);
    });
  for (auto &producer : producers) producer.join();
  executor.close();
  for (const auto &queue : seen) {
    ASSERT_EQ(queue.size(), static_cast<size_t>(k_each));
    for (int i = 0; i < k_each; ++i) ASSERT_EQ(queue[i], i);
  }
}

TEST(executor, a_shared_queue_uses_every_free_thread) {
  executor_c executor("shared", 4, default_idle_strategy, executor_queues_e::shared);
  // Four functions that can only end together: each needs a thread of its own, whichever are asleep.
  for (int round = 0; round < 200; ++round) {
    std::barrier together(4);
    std::latch done(4);
    for (int i = 0; i < 4; ++i)
      executor.submit([&] {
        together.arrive_and_wait();
        done.count_down();
      });
    done.wait();
  }
}

TEST(executor, close_runs_what_was_queued_and_refuses_the_rest) {
  executor_c executor("closing", 1);
  std::latch hold(1);
  int ran = 0;
  bool late = true;
  executor.submit([&] { hold.wait(); });
  for (int i = 0; i < 100; ++i) executor.submit([&] { ++ran; });
  executor.submit([&] { late = executor.submit([&] { ++ran; }); });  // runs after close has begun
  std::thread closer([&] { executor.close(); });
  while (executor.submit([] {})) std::this_thread::yield();
  hold.count_down();
  closer.join();
  EXPECT_EQ(ran, 100);
  EXPECT_FALSE(late);
  EXPECT_THROW(submit_on(executor, [] { return 1; }), std::runtime_error);
}

TEST(executor, submit_on_returns_and_throws_to_the_caller) {
  executor_c executor("waiting", 2);
  EXPECT_EQ(submit_on(executor, [] { return 42; }), 42);
  EXPECT_EQ(*submit_on(
                executor, [] { return std::make_unique<int>(5); }, 1),
            5);
  std::thread::id first, second;
  submit_on(
      executor, [&] { first = std::this_thread::get_id(); }, 0);
  submit_on(
      executor, [&] { second = std::this_thread::get_id(); }, 1);
  EXPECT_NE(first, second);
  EXPECT_NE(first, std::this_thread::get_id());
  EXPECT_THROW(submit_on(executor, []() -> int { throw std::out_of_range("x"); }), std::out_of_range);
}

TEST(executor, a_function_that_throws_is_logged_and_the_next_runs) {
  log_capture_c log("error");
  executor_c executor("throwing", 1);
  executor.submit([] { throw std::runtime_error("no luck"); });
  EXPECT_EQ(submit_on(executor, [] { return 1; }), 1);
  EXPECT_TRUE(log.contains("no luck"));
}

TEST(executor, process_runs_a_queue_on_the_calling_thread) {
  executor_c executor("helped", 1);
  std::latch busy(1), hold(1), helped(1);
  executor.submit([&] {
    busy.count_down();
    hold.wait();
  });
  busy.wait();
  std::thread::id ran_on;
  executor.submit([&] { ran_on = std::this_thread::get_id(); });
  EXPECT_EQ(executor.process(0), 1u);
  EXPECT_EQ(ran_on, std::this_thread::get_id());
  hold.count_down();
}

// The value of a group's figure in the node's statistics.
double figure(const std::string &name, const std::string &group) {
  std::istringstream in(stats_recorder_output_prometheus(velmar_stats_get_recorder()));
  for (std::string line; std::getline(in, line);)
    if (line.starts_with(name + "{") && line.find("functional_group=\"" + group + "\"") != std::string::npos)
      return std::stod(line.substr(line.rfind(' ')));
  return -1;
}

TEST(executor, statistics_count_what_waits_and_what_ran) {
  executor_c executor("counted", 2);
  std::latch busy(1), hold(1);
  executor.submit(
      [&] {
        busy.count_down();
        hold.wait();
      },
      0);
  busy.wait();
  for (int i = 0; i < 4; ++i) executor.submit([] {}, 0);
  EXPECT_EQ(figure("executors_njobs", "counted"), 5);
  EXPECT_EQ(figure("executors_wait_count", "counted"), 1);
  hold.count_down();
  executor.close();
  EXPECT_EQ(figure("executors_njobs", "counted"), 0);
  EXPECT_EQ(figure("executors_wait_count", "counted"), 5);
  EXPECT_EQ(figure("executors_run_count", "counted"), 5);
}

TEST(executor_death, wrong_thread_counts_and_waits_on_itself_are_fatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(executor_c("three", 3), "assertion \\(util::is_power_of_two\\(number_of_threads\\)\\)");
  EXPECT_DEATH(
      {
        executor_c executor("self", 1);
        submit_on(executor, [&] { submit_on(executor, [] {}); });
      },
      "on_own_thread");
}

}  // namespace
