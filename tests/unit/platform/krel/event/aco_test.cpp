#include <atomic>
#include <latch>
#include <memory>
#include <thread>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_aco_stack.h"
#include "support.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int k_many = 1000;
#else
constexpr int k_many = 10000;
#endif

// Runs a function as a coroutine on that loop.
void start_on(int loop, std::function<void()> function) {
  krelev_post(krelev_choose_owner(loop), [function = std::move(function)] {
    auto *copy = new std::function<void()>(function);
    krelev_aco_start(
        [](void *argument) {
          std::unique_ptr<std::function<void()>> own(static_cast<std::function<void()> *>(argument));
          EXPECT_TRUE(krelev_is_aco());
          EXPECT_EQ(krelev_aco_arg(), argument);
          (*own)();
        },
        copy);
  });
}

template <typename Function>
void on_queue(krelev_jobq_t *q, uint64_t subqueue, Function &function) {
  krelev_aco_simple_asynch_queue_subqueue(
      q, subqueue, [](void *closure) { (*static_cast<Function *>(closure))(); }, &function);
}

}  // namespace

TEST(aco, a_function_on_a_queue_resumes_its_coroutine_on_its_loop) {
  krelev_run_c run({{"concurrency", "3"}, {"jobq_q", "2,1,2,gc"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  counter_c done;
  std::atomic<int> wrong{0};
  EXPECT_FALSE(krelev_is_aco());
  for (int loop = 0; loop < 3; ++loop) {
    start_on(loop, [&, loop] {
      int on_stack = 0;
      for (int i = 0; i < 200; ++i) {
        auto job = [&] {
          if (krelev_in_loop() || krelev_is_aco()) ++wrong;
          ++on_stack;
        };
        on_queue(i % 2 == 0 ? q : nullptr, KRELEV_NO_SUBQUEUE, job);
        if (on_stack != i + 1 || !pthread_equal(pthread_self(), krelev_choose_owner(loop))) ++wrong;
      }
      done.add();
    });
  }
  EXPECT_TRUE(done.reaches(3));
  EXPECT_EQ(wrong, 0);
}

TEST(aco, many_at_once_each_with_a_stack_of_its_own) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "2,1,2"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  counter_c done;
  std::atomic<int> wrong{0};
  int inside = 0, most = 0;  // the loop's own
  std::latch all_are_there(1);
  auto wait = [&] { all_are_there.wait(); };
  for (int n = 0; n < k_many; ++n) {
    start_on(0, [&, n] {
      volatile char mark[2048];
      for (size_t i = 0; i < sizeof mark; ++i) mark[i] = static_cast<char>(n);
      most = std::max(most, ++inside);
      if (inside == k_many) all_are_there.count_down();
      on_queue(q, KRELEV_NO_SUBQUEUE, wait);
      struct timeval nap = {0, 100};
      krelev_aco_sleep(&nap);
      for (size_t i = 0; i < sizeof mark; ++i)
        if (mark[i] != static_cast<char>(n)) ++wrong;
      --inside;
      done.add();
    });
  }
  ASSERT_TRUE(done.reaches(k_many));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(most, k_many);
}

TEST(aco, sleep_is_never_short_and_lets_others_go_on) {
  krelev_run_c run({{"concurrency", "1"}});
  counter_c done;
  std::vector<int> order;
  std::atomic<bool> early{false};
  for (int n : {3, 1, 2}) {
    start_on(0, [&, n] {
      struct timeval nap = {0, n * 20000};
      uint64_t before = krel_gethrtime();
      krelev_aco_sleep(&nap);
      if (krel_gethrtime() - before < static_cast<uint64_t>(n) * 20000000) early = true;
      order.push_back(n);
      done.add();
    });
  }
  ASSERT_TRUE(done.reaches(3));
  EXPECT_FALSE(early);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(aco, a_gate_waits_for_all_and_for_none) {
  krelev_run_c run({{"concurrency", "2"}, {"jobq_q", "4,1,4,gc"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  counter_c done;
  std::atomic<int> wrong{0};
  for (int n = 0; n < 20; ++n) {
    start_on(n % 2, [&, n] {
      krelev_aco_gate_wait(krelev_aco_gate());  // nothing to wait for
      struct count_t {
        std::atomic<int> count{0};
        static void up(void *self) {
          ++static_cast<count_t *>(self)->count;
          throw std::runtime_error("counts as done");
        }
        static void quiet(void *self) { ++static_cast<count_t *>(self)->count; }
      } all;
      for (int round = 1; round <= 3; ++round) {
        krelev_aco_gate_t gate = krelev_aco_gate();
        for (int i = 0; i < 50; ++i)
          krelev_aco_run_asynch_queue_subqueue_gated(gate, q, static_cast<uint64_t>(i % 3),
                                                     i == 7 && n == 0 ? count_t::up : count_t::quiet, &all);
        // Some end while the coroutine is elsewhere, before anyone waits.
        auto nothing = [] {};
        on_queue(q, 1, nothing);
        krelev_aco_gate_wait(gate);
        if (all.count != 50 * round) ++wrong;
      }
      done.add();
    });
  }
  EXPECT_TRUE(done.reaches(20));
  EXPECT_EQ(wrong, 0);
}

// Exceptions in flight belong to a coroutine's stack, not to the thread that they share.
TEST(aco, exceptions_stay_with_their_coroutine) {
  krelev_run_c run({{"concurrency", "1"}});
  counter_c done;
  std::atomic<int> wrong{0};
  struct timeval nap = {0, 100};
  for (int n = 0; n < 50; ++n) {
    start_on(0, [&, n] {
      try {
        throw n;
      } catch (int) {
        krelev_aco_sleep(&nap);  // others throw and catch meanwhile
        try {
          throw;
        } catch (int caught) {
          if (caught != n) ++wrong;
        }
      }
      done.add();
      if (n == 0) throw std::runtime_error("logged, and no more");
    });
  }
  EXPECT_TRUE(done.reaches(50));
  EXPECT_EQ(wrong, 0);
}

TEST(aco, stop_unwinds_those_that_wait) {
  std::atomic<int> unwound{0};
  struct mark_t {
    std::atomic<int> &count;
    ~mark_t() { ++count; }
  };
  {
    krelev_run_c run({{"concurrency", "2"}});
    counter_c asleep;
    for (int n = 0; n < 10; ++n) {
      start_on(n % 2, [&, n] {
        mark_t mark{unwound};
        struct timeval long_time = {3600, 0};
        asleep.add();
        if (n % 5 == 0) {
          try {
            krelev_aco_sleep(&long_time);
          } catch (...) {
            krelev_aco_sleep(&long_time);  // would not do to stay
          }
        }
        krelev_aco_sleep(&long_time);
        ADD_FAILURE() << "resumed";
      });
    }
    ASSERT_TRUE(asleep.reaches(10));
  }
  EXPECT_EQ(unwound, 10);
}

TEST(aco_stacks, what_is_not_needed_goes_back_slowly_and_what_is_needed_stays) {
  krelev_aco_stacks_c stacks;
  auto use = [&](size_t count) {
    std::vector<char *> taken;
    for (size_t i = 0; i < count; ++i) taken.push_back(static_cast<char *>(stacks.take()));
    for (char *stack : taken) {
      stack[0] = stack[krelev_aco_stacks_c::k_size - 1] = 1;
      stacks.give(stack);
    }
  };
  use(500);
  stacks.trim();
  EXPECT_EQ(stacks.kept(), 500u) << "all were in use a moment ago";
  use(400);
  stacks.trim();
  EXPECT_EQ(stacks.kept(), 450u) << "half of the hundred that nobody took";
  for (int i = 0; i < 20; ++i) stacks.trim();
  EXPECT_EQ(stacks.kept(), 64u);
}

TEST(aco_stacks_death, a_stack_that_grows_over_its_end_hits_the_guard) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  krelev_aco_stacks_c stacks;
  auto *stack = static_cast<volatile char *>(stacks.take());
  stack[0] = 1;
  EXPECT_DEATH(stack[-1] = 1, "");
  stacks.give(const_cast<char *>(stack));
}
