#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/krel/base/krel_util.h"
#include "support.h"

TEST(loop, posts_run_once_in_order_on_their_thread) {
  krelev_run_c run({{"concurrency", "3"}, {"loop_side", "2"}});
  krelev_pool_t *side = krelev_pool("side");
  ASSERT_NE(side, nullptr);
  EXPECT_EQ(krelev_pool("absent"), nullptr);
  EXPECT_EQ(krelev_loop_concurrency(), 3);
  EXPECT_EQ(krelev_loop_concurrency(side), 2);
  EXPECT_TRUE(pthread_equal(krelev_choose_owner(1), krelev_choose_owner(4)));
  EXPECT_FALSE(pthread_equal(krelev_choose_owner(0), krelev_choose_owner_pool(side, 0)));
  EXPECT_FALSE(krelev_in_loop());

  constexpr int k_threads = 4, k_posts = 20000;
  const pthread_t owner = krelev_choose_owner_pool(side, 1);
  int next[k_threads] = {};  // touched by the owner alone
  int wrong = 0;
  counter_c done;
  std::vector<std::thread> posters;
  for (int t = 0; t < k_threads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < k_posts; ++i) {
        krelev_post(owner, [&, t, i] {
          if (!krelev_in_loop() || !pthread_equal(pthread_self(), owner) || next[t] != i) ++wrong;
          if (++next[t] == k_posts) done.add();
        });
      }
    });
  }
  for (std::thread &poster : posters) poster.join();
  ASSERT_TRUE(done.reaches(k_threads));
  EXPECT_EQ(wrong, 0);
}

// Every loop hands on to the next and sleeps between: a lost wake would hang it.
TEST(loop, tokens_pass_between_sleeping_loops) {
  krelev_run_c run({{"concurrency", "3"}});
  constexpr int k_tokens = 2, k_hops = 5000;
  counter_c done;
  std::function<void(int)> hop = [&](int left) {
    if (left == 0) return done.add();
    krelev_post(krelev_choose_owner(left), [&hop, left] { hop(left - 1); });
  };
  for (int i = 0; i < k_tokens; ++i) hop(k_hops);
  EXPECT_TRUE(done.reaches(k_tokens));
}

TEST(loop, a_throwing_post_takes_nothing_along) {
  krelev_run_c run;
  counter_c done;
  krelev_post(krelev_choose_owner(0), [] { throw std::runtime_error("on purpose"); });
  krelev_post(krelev_choose_owner(0), [] { throw 5; });
  krelev_post(krelev_choose_owner(0), [&] { done.add(); });
  EXPECT_TRUE(done.reaches(1));
}

TEST(loop, figures_and_the_age_of_the_slowest) {
  krelev_run_c run({{"concurrency", "2"}});
  counter_c entered, done;
  std::mutex gate;
  gate.lock();
  krelev_post(krelev_choose_owner(1), [&] {
    entered.add();
    std::lock_guard wait(gate);
    done.add();
  });
  ASSERT_TRUE(entered.reaches(1));
  // A loop that hangs grows older without bound, however well the other one turns.
  EXPECT_TRUE(becomes_true([] { return krelev_slowest_loop_age_s() > 1.3; }));
  gate.unlock();
  ASSERT_TRUE(done.reaches(1));
  EXPECT_TRUE(becomes_true([] { return krelev_slowest_loop_age_s() < 1.2; }));
  krelev_pool_for_each([](const krelev_pool_figures_t &figures) {
    EXPECT_EQ(figures.name, "default");
    EXPECT_EQ(figures.threads, 2u);
    EXPECT_GE(figures.events, 1u);
    EXPECT_GE(figures.turns, 2u);
  });
}

TEST(loop, owners_named_before_the_start_hold_after_it) {
  krelev_config("concurrency", "2");
  ASSERT_EQ(krelev_init(), 0);
  pthread_t first = krelev_choose_owner(0), second = krelev_choose_owner(1);
  counter_c done;
  krelev_post(first, [&] { done.add(); });
  krelev_start_threads();
  krelev_post(first, [&] {
    if (pthread_equal(pthread_self(), krelev_choose_owner(0))) done.add();
  });
  krelev_post(second, [&, second] {
    if (pthread_equal(pthread_self(), second)) done.add();
  });
  EXPECT_TRUE(done.reaches(3));
  krelev_stop();
}

TEST(loop_death, the_first_loop_runs_on_the_thread_that_calls_krelev_loop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto serve = [] {
    krelev_config("concurrency", "3");
    krelev_init();
    pthread_t self = pthread_self();
    // Ends the process from the loop while the other threads run, as an orderly shutdown does.
    auto leave = [self] { exit(pthread_equal(pthread_self(), self) && krelev_in_loop() ? 7 : 1); };
    krelev_jobq_run(nullptr, [leave] { krelev_post(krelev_choose_owner(0), leave); });
    krelev_loop();
  };
  EXPECT_EXIT(serve(), testing::ExitedWithCode(7), "");
}

namespace {

struct recurrent_t {
  counter_c calls;
  std::atomic<int> answer{1};
  std::atomic<bool> wrong{false};
  static int callback(krelev_event_t event, int mask, void *closure, const struct timeval *now) {
    auto *self = static_cast<recurrent_t *>(closure);
    if (mask != KRELEV_RECURRENT || now->tv_sec == 0 || !pthread_equal(pthread_self(), krelev_get_owner(event)))
      self->wrong = true;
    self->calls.add();
    return self->answer;
  }
};

}  // namespace

TEST(loop, recurrent_events_run_again_without_anything_to_wake_the_loop) {
  recurrent_t busy, lazy;
  lazy.answer = 0;
  krelev_run_c run({{"concurrency", "3"}});
  krelev_event_t first = krelev_alloc_recurrent(recurrent_t::callback, &busy);
  krelev_set_owner(first, krelev_choose_owner(1));
  krelev_event_t second = krelev_alloc_recurrent(recurrent_t::callback, &lazy);
  krelev_set_owner(second, krelev_choose_owner(2));
  krelev_add(first);
  krelev_add(second);
  EXPECT_TRUE(busy.calls.reaches(50));
  EXPECT_TRUE(lazy.calls.reaches(3));
  run.stop();
  EXPECT_FALSE(busy.wrong || lazy.wrong);
}

TEST(loop, the_system_starts_again_after_a_stop) {
  for (int i = 0; i < 3; ++i) {
    krelev_run_c run({{"concurrency", std::to_string(i + 1)}, {"jobq_again", "1,1,1"}});
    EXPECT_EQ(krelev_loop_concurrency(), i + 1);
    counter_c done;
    krelev_jobq_run(krelev_jobq_retrieve("again"), [&] { done.add(); });
    EXPECT_TRUE(done.reaches(1));
  }
}
