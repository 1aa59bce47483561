#include "util/progressive_lock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "util/spinlock.h"

// A writer never overlaps with anyone, a seeker never with a seeker; a plain variable shows it to the race
// detector, the counts to everyone.
TEST(ProgressiveLock, KeepsItsLevelsApart) {
  progressive_lock_c lock;
  uint64_t exclusive_data[2] = {0, 0};
  std::atomic<uint64_t> seek_data = 0;
  std::atomic<int> torn = 0, together = 0, seekers = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&]() NO_THREAD_SAFETY_ANALYSIS {
      for (int i = 0; i < 4000; i++) {
        lock.read_lock();
        if (exclusive_data[0] != exclusive_data[1]) torn++;
        lock.read_unlock();
      }
    });
  for (int t = 0; t < 3; t++)
    threads.emplace_back([&]() NO_THREAD_SAFETY_ANALYSIS {
      for (int i = 0; i < 2000; i++) {
        lock.seek_lock();
        if (seekers++ > 0) together++;
        seek_data.store(seek_data.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (i % 4 == 0) {
          lock.upgrade();
          exclusive_data[0]++;
          exclusive_data[1]++;
          lock.downgrade();
        }
        seekers--;
        lock.seek_unlock();
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(together, 0);
  EXPECT_EQ(seek_data, 6000u);
  EXPECT_EQ(exclusive_data[0], 1500u);
}

TEST(Spinlock, ExcludesOthers) {
  spinlock_c lock;
  uint64_t count = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; i++) {
        const spinlock_guard_c guard(lock);
        count++;
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(count, 15000u);
}
