#include "platform/krel/base/krel_memory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_cleaned{0};
void count_cleanup(void *) {
  g_cleaned++;
}

void *counted() {
  return krel_memory_safe_malloc_cleanup(32, count_cleanup);
}

void maintain_until(const std::function<bool()> &done) {
  for (int i = 0; i < 1000 && !done(); i++) krel_memory_maintenance_ex(2);
}

TEST(krel_memory_test, a_block_outlives_every_section_open_when_it_was_freed) {
  g_cleaned = 0;
  std::latch reading(1), release(1);
  std::thread reader([&] {
    krel_memory_begin();
    krel_memory_begin();  // nested: the inner end must not let go
    krel_memory_end();
    reading.count_down();
    release.wait();
    krel_memory_end();
  });
  reading.wait();
  krel_memory_safe_free(counted());
  for (int i = 0; i < 100; i++) krel_memory_maintenance_ex(2);
  EXPECT_EQ(g_cleaned, 0);
  release.count_down();
  reader.join();
  maintain_until([] { return g_cleaned == 1; });
  EXPECT_EQ(g_cleaned, 1);
}

TEST(krel_memory_test, freeing_inside_ones_own_section_waits_for_its_end) {
  g_cleaned = 0;
  {
    krel_memory_section_c section;
    EXPECT_TRUE(krel_memory_in_cs());
    for (int i = 0; i < 1000; i++) krel_memory_safe_free(counted());
    krel_memory_maintenance_ex(2);
    EXPECT_EQ(g_cleaned, 0);
  }
  EXPECT_FALSE(krel_memory_in_cs());
  maintain_until([] { return g_cleaned == 1000; });
  EXPECT_EQ(g_cleaned, 1000);
}

TEST(krel_memory_test, what_an_ended_thread_freed_is_released_by_the_others) {
  g_cleaned = 0;
  std::latch freed(1), reading(1), release(1);
  std::thread reader([&] {
    krel_memory_section_c section;
    reading.count_down();
    release.wait();
  });
  reading.wait();
  std::thread([] {
    for (int i = 0; i < 10; i++) krel_memory_safe_free(counted());
  }).join();
  maintain_until([] { return g_cleaned > 0; });
  EXPECT_EQ(g_cleaned, 0);
  release.count_down();
  reader.join();
  maintain_until([] { return g_cleaned == 10; });
  EXPECT_EQ(g_cleaned, 10);
}

TEST(krel_memory_test, a_thread_that_only_frees_does_not_pile_memory_up) {
  g_cleaned = 0;
  std::thread([] {
    for (int i = 0; i < 10000; i++) krel_memory_safe_free(counted());
  }).join();
  EXPECT_GT(g_cleaned, 9000);
  maintain_until([] { return g_cleaned == 10000; });
  EXPECT_EQ(g_cleaned, 10000);
}

TEST(krel_memory_test, a_cleanup_may_free_more) {
  g_cleaned = 0;
  struct parent_t {
    void *child;
  };
  void *memory = krel_memory_safe_malloc_cleanup(sizeof(parent_t), [](void *block) {
    krel_memory_section_c section;
    krel_memory_safe_free(static_cast<parent_t *>(block)->child);
    g_cleaned++;
  });
  static_cast<parent_t *>(memory)->child = counted();
  krel_memory_safe_free(memory);
  maintain_until([] { return g_cleaned == 2; });
  EXPECT_EQ(g_cleaned, 2);
}

TEST(krel_memory_test, blocks_are_aligned_zeroed_and_copied) {
  auto *zeroed = static_cast<char *>(krel_memory_safe_calloc(7, 9));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(zeroed) % 16, 0u);
  EXPECT_EQ(std::string(zeroed, 63), std::string(63, '\0'));
  char *text = krel_memory_safe_strdup("text");
  EXPECT_STREQ(text, "text");
  krel_memory_safe_free(zeroed);
  krel_memory_safe_free(text);
  krel_memory_safe_free(nullptr);
}

TEST(krel_memory_test, freeing_twice_is_fatal) {
  EXPECT_DEATH(
      {
        void *block = krel_memory_safe_malloc(8);
        krel_memory_safe_free(block);
        krel_memory_safe_free(block);
      },
      "");
}

// Readers follow a pointer that a writer keeps replacing; a block that was given back too early would
// hold another value (or be reported by a sanitizer).
TEST(krel_memory_test, readers_never_see_a_released_block) {
  constexpr int k_readers = 3, k_rounds = 20000;
  struct value_t {
    uint64_t a, b;
  };
  auto make = [](uint64_t n) {
    auto *v = static_cast<value_t *>(krel_memory_safe_malloc_cleanup(
        sizeof(value_t), [](void *block) { std::memset(block, 0xff, sizeof(value_t)); }));
    v->a = n;
    v->b = ~n;
    return v;
  };
  std::atomic<value_t *> shared{make(0)};
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> torn{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < k_readers; i++)
    readers.emplace_back([&] {
      krel_memory_init_thread();
      while (!stop) {
        krel_memory_section_c section;
        value_t *v = shared.load(std::memory_order_acquire);
        uint64_t a = v->a;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (v->b != ~a) torn++;
      }
      krel_memory_fini_thread();
    });
  for (int i = 1; i <= k_rounds; i++) {
    value_t *old = shared.exchange(make(static_cast<uint64_t>(i)), std::memory_order_acq_rel);
    krel_memory_safe_free(old);
  }
  stop = true;
  for (auto &reader : readers) reader.join();
  EXPECT_EQ(torn, 0u);
  krel_memory_safe_free(shared.load());
}

}  // namespace
