#include <gtest/gtest.h>

#include <latch>
#include <vector>

#include "platform/krel/event/krelev.h"
#include "util/concurrency/single_barrier.h"
#include "util/concurrency/tolv_asynch_immediate.h"
#include "util/concurrency/tolv_asynch_krel.h"
#include "util/concurrency/tolv_asynch_mock.h"
#include "util/concurrency/tolv_timed_krel.h"
#include "util/concurrency/tolv_timed_mock.h"

namespace {

struct timeval at_ms(int64_t ms) {
  return {ms / 1000, static_cast<suseconds_t>(ms % 1000 * 1000)};
}

struct job_t {
  std::vector<int> masks;
  std::vector<int64_t> times;
  std::latch complete{1};
  static int callback(krelev_event_t, int mask, void *closure, const struct timeval *now) {
    auto *job = static_cast<job_t *>(closure);
    job->masks.push_back(mask);
    job->times.push_back(now->tv_sec);
    if (mask == KRELEV_ASYNCH_COMPLETE) job->complete.count_down();
    return 0;
  }
};
const std::vector<int> k_all_masks = {16, 32, 48};

TEST(tolv_asynch_immediate, runs_work_cleanup_and_completion_before_add_returns) {
  tolv_timed_mock::clock_c clock;
  clock.set_time(at_ms(77000));
  tolv_asynch_immediate::factory_c factory(clock);
  job_t job;
  tolv_asynch_scheduler_t scheduler = tolv_asynch_create_scheduler(&factory, "x", 1, false);
  tolv_asynch_schedule(&scheduler, job_t::callback, &job);
  EXPECT_EQ(job.masks, k_all_masks);
  EXPECT_EQ(job.times, (std::vector<int64_t>{77, 77, 77}));
  tolv_asynch_destroy_scheduler(&scheduler);
  const auto wrong = [](krelev_event_t, int, void *, const struct timeval *) { return 1; };
  EXPECT_DEATH(factory.get_default_runner()->add(factory.create_cb(wrong, nullptr)), "newmask == 0");
}

TEST(tolv_asynch_mock, runs_jobs_when_told_and_refuses_above_its_backlog) {
  tolv_asynch_mock::factory_c factory;
  auto *runner = factory.create_runner("x", {.backlog = 2});
  job_t first, second, third;
  runner->add(factory.create_cb(job_t::callback, &first));
  EXPECT_TRUE(runner->try_add(factory.create_cb(job_t::callback, &second)));
  krelev_event_t refused = factory.create_cb(job_t::callback, &third);
  EXPECT_FALSE(runner->try_add(refused));
  EXPECT_TRUE(first.masks.empty());
  EXPECT_TRUE(runner->step());
  EXPECT_EQ(first.masks, k_all_masks);
  EXPECT_TRUE(second.masks.empty());
  EXPECT_TRUE(runner->try_add(refused));
  EXPECT_EQ(runner->run_all(), 2u);
  EXPECT_EQ(third.masks, k_all_masks);
  EXPECT_FALSE(runner->step());
  factory.free_runner(runner);
}

struct ticks_t {
  std::vector<int64_t> fired_ms;
  int64_t every_ms = 0;
  size_t times = 1;
  static int callback(tolv_timed::cb_c *cb, void *closure, const struct timeval *now) {
    auto *ticks = static_cast<ticks_t *>(closure);
    ticks->fired_ms.push_back(now->tv_sec * 1000 + now->tv_usec / 1000);
    EXPECT_EQ(cb->get_closure(), closure);
    if (ticks->fired_ms.size() >= ticks->times) return cb->returning_free();
    return cb->returning_resched(at_ms(ticks->fired_ms.back() + ticks->every_ms));
  }
};

TEST(tolv_timed_mock, fires_in_time_order_reschedules_and_cancels) {
  tolv_timed_mock::factory_c factory;
  auto *runner = factory.get_default_runner();
  ticks_t late, repeated, cancelled;
  repeated.every_ms = 100;
  repeated.times = 3;
  auto late_cb = factory.create_cb(ticks_t::callback, &late);
  late_cb->set_timeout(at_ms(5250));
  runner->schedule(late_cb.get());
  auto cancelled_cb = factory.create_cb(ticks_t::callback, &cancelled);
  cancelled_cb->set_timeout(at_ms(5100));
  runner->schedule(cancelled_cb.get());
  {
    auto repeated_cb = factory.create_cb(ticks_t::callback, &repeated);
    repeated_cb->set_timeout(at_ms(5000));
    runner->schedule(repeated_cb.get());  // the pending timer keeps it
  }
  EXPECT_EQ(factory.get_default_runner()->next().tv_sec, 5);
  EXPECT_EQ(factory.get_default_runner()->run_until(at_ms(4999)), 0u);
  EXPECT_TRUE(runner->try_cancel(cancelled_cb.get()));
  EXPECT_FALSE(runner->try_cancel(cancelled_cb.get()));
  EXPECT_EQ(factory.get_default_runner()->run_until(at_ms(10000)), 4u);
  EXPECT_EQ(repeated.fired_ms, (std::vector<int64_t>{5000, 5100, 5200}));
  EXPECT_EQ(late.fired_ms, std::vector<int64_t>{5250});
  EXPECT_TRUE(cancelled.fired_ms.empty());
  EXPECT_FALSE(runner->try_cancel(late_cb.get()));
  EXPECT_EQ(factory.get_clock()->get_time_s(), 10);
}

class on_loops_test : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    krelev_config("concurrency", "3");
    krelev_config("jobq_configured", "2,1,2,gc");
    ASSERT_EQ(krelev_init(), 0);
    krelev_start_threads();
  }
  static void TearDownTestSuite() { krelev_stop(); }
};

uint32_t concurrency_of(const std::string &name) {
  uint32_t out = 0;
  krelev_jobq_for_each([&](const krelev_jobq_figures_t &figures) {
    if (figures.name == name) out = figures.concurrency;
  });
  return out;
}

TEST_F(on_loops_test, jobs_run_on_a_queue_of_their_own_with_the_values_given) {
  auto &factory = tolv_asynch_krel::factory_c::get_instance();
  auto *runner = factory.create_runner("tolv_own", {.concurrency = 3, .memory_safety = true, .max = 2});
  ASSERT_NE(krelev_jobq_retrieve("tolv_own"), nullptr);
  EXPECT_EQ(concurrency_of("tolv_own"), 3u);
  EXPECT_TRUE(krelev_jobq_get_memory_safety(krelev_jobq_retrieve("tolv_own")));
  job_t own, with_default;
  runner->add(factory.create_cb(job_t::callback, &own));
  EXPECT_TRUE(factory.get_default_runner()->try_add(factory.create_cb(job_t::callback, &with_default)));
  own.complete.wait();
  with_default.complete.wait();
  EXPECT_EQ(own.masks, k_all_masks);
  EXPECT_EQ(with_default.masks, k_all_masks);
  factory.free_runner(runner);
  EXPECT_EQ(krelev_jobq_retrieve("tolv_own"), nullptr);
}

TEST_F(on_loops_test, a_configured_queue_keeps_its_values_and_outlives_the_runner) {
  auto &factory = tolv_asynch_krel::factory_c::get_instance();
  auto *runner = factory.create_runner("configured", {.concurrency = 7, .memory_safety = true});
  EXPECT_EQ(concurrency_of("configured"), 2u);
  factory.free_runner(runner);
  EXPECT_NE(krelev_jobq_retrieve("configured"), nullptr);
}

struct timer_t_ {
  std::atomic<int> fired{0};
  int times = 1;
  bool on_loop = true;
  std::latch ended{1};
  static int callback(tolv_timed::cb_c *cb, void *closure, const struct timeval *now) {
    auto *timer = static_cast<timer_t_ *>(closure);
    timer->on_loop &= krelev_in_loop();
    if (++timer->fired < timer->times) return cb->returning_resched(*now);
    timer->ended.count_down();
    return cb->returning_free();
  }
};

TEST_F(on_loops_test, timers_fire_on_loops_and_reschedule) {
  auto &factory = tolv_timed_krel::factory_c::get_instance();
  EXPECT_EQ(factory.get_num_round_robin_runners(), 2);
  auto *first = factory.get_round_robin_runner(), *second = factory.get_round_robin_runner();
  EXPECT_TRUE(first != second && first != factory.get_default_runner() &&
              second != factory.get_default_runner());
  EXPECT_EQ(factory.get_round_robin_runner(), first);
  for (auto *runner : {first, second, factory.get_default_runner()}) {
    timer_t_ timer;
    timer.times = 3;
    auto cb = factory.create_cb(timer_t_::callback, &timer);
    struct timeval now;
    factory.get_clock()->get_time(&now);
    cb->set_timeout(now);
    runner->schedule(cb.get());
    timer.ended.wait();
    EXPECT_EQ(timer.fired, 3);
    EXPECT_TRUE(timer.on_loop);
    EXPECT_FALSE(runner->try_cancel(cb.get()));
  }
}

// Cancels against timers that are just about to fire: each either fires once or is cancelled.
TEST_F(on_loops_test, a_cancel_and_a_firing_timer_agree) {
  auto &factory = tolv_timed_krel::factory_c::get_instance();
  int cancelled = 0;
  for (int i = 0; i < 2000; ++i) {
    auto *runner = factory.get_round_robin_runner();
    timer_t_ timer;
    auto cb = factory.create_cb(timer_t_::callback, &timer);
    struct timeval when;
    factory.get_clock()->get_time(&when);
    when.tv_usec += i % 5 * 20;
    if (when.tv_usec >= 1000000) {
      when.tv_usec -= 1000000;
      ++when.tv_sec;
    }
    cb->set_timeout(when);
    runner->schedule(cb.get());
    for (struct timeval now = {}; timercmp(&now, &when, <);) factory.get_clock()->get_time(&now);
    if (runner->try_cancel(cb.get())) {
      ++cancelled;
      EXPECT_EQ(timer.fired, 0);
    } else {
      timer.ended.wait();
      EXPECT_EQ(timer.fired, 1);
    }
  }
  struct timeval far;
  factory.get_clock()->get_time(&far);
  far.tv_sec += 3600;
  timer_t_ never;
  auto cb = factory.create_cb(timer_t_::callback, &never);
  cb->set_timeout(far);
  factory.get_default_runner()->schedule(cb.get());
  EXPECT_TRUE(factory.get_default_runner()->try_cancel(cb.get()));
  EXPECT_EQ(never.fired, 0);
  RecordProperty("cancelled", cancelled);
}

}  // namespace
