#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "util/concurrency/mp_sc_smart_batcher.h"
#include "util/concurrency/single_barrier.h"
#include "util/concurrency/sp_sc_channel.h"

using namespace util::concurrency;

namespace {

TEST(sp_sc_channel, a_send_into_a_full_channel_waits_for_the_consumers_swap) {
  sp_sc_channel_c<int> channel(2);
  EXPECT_EQ(channel.recv(), std::nullopt);
  EXPECT_TRUE(channel.send_wait(1));
  EXPECT_TRUE(channel.send_wait(2));
  std::atomic<bool> sent{false};
  std::thread producer([&] {
    channel.send_wait(3);
    sent = true;
  });
  EXPECT_FALSE(sent);  // cannot be set before the recv below
  EXPECT_EQ(channel.recv(), 1);
  producer.join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(channel.recv(), 2);
  EXPECT_EQ(channel.recv(), 3);
  EXPECT_EQ(channel.recv(), std::nullopt);
}

TEST(sp_sc_channel, shutdown_fails_sends_frees_waiters_and_lets_the_rest_out) {
  sp_sc_channel_c<std::unique_ptr<int>> channel(1);
  EXPECT_TRUE(channel.send_wait(std::make_unique<int>(1)));
  auto value = std::make_unique<int>(2);
  std::thread producer([&] { EXPECT_FALSE(channel.send_wait(std::move(value))); });  // full, then shut down
  channel.shutdown();
  producer.join();
  ASSERT_TRUE(value);  // still the caller's
  auto last = channel.recv_wait();
  ASSERT_TRUE(last);
  EXPECT_EQ(**last, 1);
  EXPECT_EQ(channel.recv_wait(), std::nullopt);
}

TEST(sp_sc_channel, every_element_arrives_once_in_order) {
  sp_sc_channel_c<int> channel(7);
  constexpr int k_count = 200000;
  std::thread producer([&] {
    for (int i = 0; i < k_count; ++i) ASSERT_TRUE(channel.send_wait(i));
    channel.shutdown();
  });
  int expected = 0;
  while (const auto value = channel.recv_wait()) ASSERT_EQ(*value, expected++);
  EXPECT_EQ(expected, k_count);
  producer.join();
}

TEST(mp_sc_smart_batcher, takes_everything_of_every_producer_in_its_order) {
  mp_sc_smart_batcher_c<std::pair<int, int>> batcher;
  constexpr int k_producers = 3, k_each = 20000;
  std::atomic<int> firsts{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < k_producers; ++p)
    producers.emplace_back([&, p] {
      for (int i = 0; i < k_each; ++i) firsts += batcher.add({p, i});
    });
  int next[k_producers] = {}, taken = 0, batches = 0;
  while (taken < k_producers * k_each) {
    const auto &batch = batcher.take();
    batches += !batch.empty();
    for (const auto &[p, i] : batch) ASSERT_EQ(next[p]++, i);
    taken += static_cast<int>(batch.size());
  }
  for (auto &producer : producers) producer.join();
  EXPECT_EQ(firsts, batches);  // one add of each batch was told to wake the consumer
  EXPECT_TRUE(batcher.take().empty());
}

TEST(single_barrier, waits_for_all_and_may_end_as_soon_as_it_opens) {
  single_barrier_c open(0);
  open.wait();
  for (int round = 0; round < 500; ++round) {
    int sum[3] = {};
    std::vector<std::thread> threads;
    {
      single_barrier_c barrier(3);
      for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
          sum[i] = i + 1;
          barrier.count_down();
        });
      barrier.wait();
      EXPECT_EQ(sum[0] + sum[1] + sum[2], 6);
      barrier.wait();
    }
    for (auto &thread : threads) thread.join();
  }
  EXPECT_DEATH(single_barrier_c(1).count_down(2), "before >= amount");
}

}  // namespace
