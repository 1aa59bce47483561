#include <atomic>
#include <random>
#include <thread>

#include "platform/krel/base/krel_util.h"
#include "support.h"

namespace {

struct timeval at_us(uint64_t us) {
  return {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

struct shot_t {
  counter_c *fired = nullptr;
  std::vector<int> *order = nullptr;
  int id = 0;
  uint64_t due_us = 0;
  std::atomic<bool> early{false};
  std::atomic<int> times{0};

  static int callback(krelev_event_t event, int mask, void *closure, const struct timeval *) {
    auto *self = static_cast<shot_t *>(closure);
    if (mask != KRELEV_TIMER || krel_now_us() < self->due_us ||
        !pthread_equal(pthread_self(), krelev_get_owner(event)))
      self->early = true;
    EXPECT_FALSE(krelev_remove_timed(event)) << "it is firing";
    ++self->times;
    if (self->order != nullptr) self->order->push_back(self->id);
    self->fired->add();
    return 0;
  }
  krelev_event_t alloc(uint64_t us) {
    due_us = us;
    struct timeval when = at_us(us);
    return krelev_alloc_timer(callback, this, &when);
  }
};

}  // namespace

TEST(timer, fires_in_order_of_time_not_of_adding_and_never_early) {
  krelev_run_c run;
  counter_c fired;
  std::vector<int> order;
  constexpr int k_timers = 200;
  std::vector<shot_t> shots(k_timers);
  uint64_t base = krel_now_us() + 20000;
  for (int i = 0; i < k_timers; ++i) {
    int id = i * 37 % k_timers;  // every id once
    shots[id].fired = &fired;
    shots[id].order = &order;
    shots[id].id = id;
    // Both in the past and to come; equal moments keep their order of adding.
    krelev_event_t timer = shots[id].alloc(base + static_cast<uint64_t>(id) * 100);
    krelev_set_owner(timer, krelev_choose_owner(1));
    krelev_add(timer);
  }
  ASSERT_TRUE(fired.reaches(k_timers));
  run.stop();
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  for (const shot_t &shot : shots) {
    EXPECT_EQ(shot.times, 1);
    EXPECT_FALSE(shot.early);
  }
}

TEST(timer, a_past_moment_fires_at_once_and_a_far_one_is_dropped_at_the_end) {
  counter_c fired;
  shot_t past, far;
  past.fired = far.fired = &fired;
  {
    krelev_run_c run;
    krelev_add(far.alloc(krel_now_us() + 3600ull * 1000000));
    krelev_add(past.alloc(1));
    EXPECT_TRUE(fired.reaches(1));
  }
  EXPECT_EQ(past.times, 1);
  EXPECT_EQ(far.times, 0);
}

TEST(timer, a_timer_added_while_firing_waits_for_its_turn_and_an_earlier_one_shortens_the_sleep) {
  krelev_run_c run({{"concurrency", "1"}});
  struct chain_t {
    counter_c fired;
    static int callback(krelev_event_t, int, void *closure, const struct timeval *now) {
      auto *self = static_cast<chain_t *>(closure);
      self->fired.add();
      krelev_add(krelev_alloc_timer(callback, self, now));  // due already
      return 0;
    }
  } chain;
  counter_c posted;
  struct timeval now = at_us(krel_now_us());
  krelev_add(krelev_alloc_timer(chain_t::callback, &chain, &now));
  ASSERT_TRUE(chain.fired.reaches(100));
  krelev_post(krelev_choose_owner(0), [&] { posted.add(); });  // the chain does not starve the loop
  EXPECT_TRUE(posted.reaches(1));
  run.stop();
}

TEST(timer, cancel_gives_the_event_back_and_a_stale_handle_gives_false) {
  krelev_run_c run;
  counter_c fired;
  shot_t shot, gone;
  shot.fired = gone.fired = &fired;
  krelev_event_t timer = shot.alloc(krel_now_us() + 3600ull * 1000000);
  krelev_add(timer);
  EXPECT_TRUE(krelev_remove_timed(timer));
  EXPECT_FALSE(krelev_remove_timed(timer)) << "a second time";
  EXPECT_EQ(krelev_get_closure(timer), &shot) << "it is the caller's";
  krelev_free(timer);

  krelev_event_t fires = gone.alloc(1);
  krelev_add(fires);
  ASSERT_TRUE(fired.reaches(1));
  // Other timers take its memory over; the old handle must not hit them.
  for (int i = 0; i < 2000; ++i) {
    krelev_event_t other = shot.alloc(krel_now_us() + 3600ull * 1000000);
    krelev_add(other);
    ASSERT_FALSE(krelev_remove_timed(fires));
    ASSERT_TRUE(krelev_remove_timed(other));
    krelev_free(other);
  }
  EXPECT_EQ(shot.times, 0);
}

// Each timer either fires or is cancelled, never both, never neither, whoever is first.
TEST(timer, cancels_from_other_threads_race_with_firing) {
  krelev_run_c run({{"concurrency", "2"}});
  constexpr int k_rounds = 40, k_timers = 250;
  std::minstd_rand random(7);
  uint64_t cancelled_in_all = 0;
  for (int round = 0; round < k_rounds; ++round) {
    counter_c fired;
    std::vector<shot_t> shots(k_timers);
    std::vector<krelev_event_t> handles;
    for (shot_t &shot : shots) {
      shot.fired = &fired;
      handles.push_back(shot.alloc(krel_now_us() + random() % 600));
      krelev_set_owner(handles.back(), krelev_choose_owner(static_cast<int>(random() % 2)));
      krelev_add(handles.back());
    }
    std::atomic<int> cancelled{0};
    std::vector<std::thread> cancellers;
    for (int t = 0; t < 2; ++t) {
      cancellers.emplace_back([&] {  // both try every one
        for (int i = 0; i < k_timers; ++i) {
          if (!krelev_remove_timed(handles[i])) continue;
          ++cancelled;
          ++shots[i].times;
          krelev_free(handles[i]);
        }
      });
    }
    for (std::thread &canceller : cancellers) canceller.join();
    ASSERT_TRUE(fired.reaches(k_timers - cancelled));
    for (const shot_t &shot : shots) ASSERT_EQ(shot.times, 1);
    cancelled_in_all += static_cast<uint64_t>(cancelled);
  }
  EXPECT_LE(cancelled_in_all, static_cast<uint64_t>(k_rounds * k_timers));
}
