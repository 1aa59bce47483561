#include "platform/krel/event/krelev_jobq.h"

#include <atomic>
#include <barrier>
#include <latch>
#include <map>
#include <random>
#include <thread>

#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"
#include "support.h"

namespace {

// Holds the threads of a queue until it is opened.
class gate_c {
 public:
  void open() { m_open.count_down(); }
  void pass() {
    m_entered.add();
    m_open.wait();
  }
  [[nodiscard]] bool entered(int n) { return m_entered.reaches(n); }

 private:
  std::latch m_open{1};
  counter_c m_entered;
};

struct phases_t {
  std::vector<int> masks;
  bool wrong = false;
  bool throws = false;
  counter_c done;
  static int callback(krelev_event_t event, int mask, void *closure, const struct timeval *now) {
    auto *self = static_cast<phases_t *>(closure);
    self->masks.push_back(mask);
    bool on_loop = mask == KRELEV_ASYNCH_COMPLETE;
    if (krelev_in_loop() != on_loop || now->tv_sec == 0) self->wrong = true;
    if (on_loop && !pthread_equal(pthread_self(), krelev_get_owner(event))) self->wrong = true;
    if (krel_memory_in_cs() != (mask == KRELEV_ASYNCH_WORK)) self->wrong = true;
    bool throwing = self->throws;
    if (mask == KRELEV_ASYNCH_WORK && throwing) krel_memory_begin();  // and never ended
    if (on_loop) self->done.add();                                    // the last access
    if (throwing) throw std::runtime_error("on purpose");
    return 0;
  }
};

}  // namespace

TEST(jobq, work_and_cleanup_on_the_queue_complete_on_the_owner) {
  krelev_run_c run({{"concurrency", "3"}, {"jobq_q", "2,1,2,gc"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  for (int i = 0; i < 3; ++i) {
    phases_t phases;
    krelev_event_t event = krelev_alloc_asynch(phases_t::callback, &phases);
    krelev_set_owner(event, krelev_choose_owner(i));
    krelev_add_asynch(q, event);
    ASSERT_TRUE(phases.done.reaches(1));
    EXPECT_FALSE(phases.wrong);
    EXPECT_EQ(phases.masks,
              (std::vector<int>{KRELEV_ASYNCH_WORK, KRELEV_ASYNCH_CLEANUP, KRELEV_ASYNCH_COMPLETE}));
  }
  // Allocated on a loop, it comes back to that loop.
  phases_t phases;
  krelev_post(krelev_choose_owner(2), [&] {
    krelev_event_t event = krelev_alloc_asynch(phases_t::callback, &phases);
    if (!pthread_equal(krelev_get_owner(event), pthread_self())) phases.wrong = true;
    krelev_add_asynch(nullptr, event);
  });
  ASSERT_TRUE(phases.done.reaches(1));
  EXPECT_FALSE(phases.wrong);
}

TEST(jobq, a_throwing_job_is_done_and_hurts_nobody) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "1,1,1,gc"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  phases_t bad, good;
  bad.throws = true;
  krelev_add_asynch(q, krelev_alloc_asynch(phases_t::callback, &bad));
  krelev_jobq_run(q, [] { throw 1; });
  krelev_add_asynch(q, krelev_alloc_asynch(phases_t::callback, &good));
  ASSERT_TRUE(good.done.reaches(1));
  EXPECT_EQ(bad.masks.size(), 3u);
  EXPECT_FALSE(bad.wrong || good.wrong) << "a section left open by the throwing job would show";
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).total == 3; }));
}

TEST(jobq, one_thread_keeps_the_order_lifo_turns_it) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_fifo", "1,1,1"}, {"jobq_lifo", "1,1,1,none,0,lifo"}});
  for (const char *name : {"fifo", "lifo"}) {
    krelev_jobq_t *q = krelev_jobq_retrieve(name);
    gate_c gate;
    std::vector<int> order;
    counter_c done;
    krelev_jobq_run(q, [&] { gate.pass(); });
    ASSERT_TRUE(gate.entered(1));
    for (int i = 0; i < 100; ++i) {
      krelev_jobq_run(q, [&, i] {
        order.push_back(i);
        done.add();
      });
    }
    gate.open();
    ASSERT_TRUE(done.reaches(100));
    if (std::string(name) == "lifo") std::reverse(order.begin(), order.end());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << name;
  }
}

TEST(jobq, backlog_limit_refuses_and_leaves_the_event_with_the_caller) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "1,1,1,gc,3"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  gate_c gate;
  counter_c done;
  krelev_jobq_run(q, [&] { gate.pass(); });
  ASSERT_TRUE(gate.entered(1));  // running, not in the backlog
  auto job = [&] { return lambda_job_c::make({}, [&] { done.add(); }); };
  EXPECT_TRUE(krelev_try_add_asynch(q, job()));
  EXPECT_TRUE(krelev_try_add_asynch_subqueue(q, job(), 9));
  EXPECT_TRUE(krelev_try_add_asynch_subqueue(q, job(), 9));
  krelev_event_t refused = job();
  EXPECT_FALSE(krelev_try_add_asynch(q, refused));
  EXPECT_FALSE(krelev_try_add_asynch_subqueue(q, refused, 9));
  EXPECT_EQ(figures_of(q).backlog, 3u);
  EXPECT_EQ(figures_of(q).in_flight, 1u);
  krelev_add_asynch(q, job());  // the plain form knows no limit
  krelev_jobq_set_max_backlog(q, 5);
  EXPECT_TRUE(krelev_try_add_asynch(q, refused));
  gate.open();
  EXPECT_TRUE(done.reaches(5));
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).total == 6 && figures_of(q).backlog == 0; }));
}

TEST(jobq, threads_come_on_demand_and_go_when_idle) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "4,1,8"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  q->set_idle_limit(2000000);
  EXPECT_EQ(figures_of(q).threads, 0u);
  auto occupy = [&](int jobs, uint32_t threads) {
    gate_c gate;
    counter_c done;
    for (int i = 0; i < jobs; ++i) {
      krelev_jobq_run(q, [&] {
        gate.pass();
        done.add();
      });
    }
    EXPECT_TRUE(gate.entered(static_cast<int>(threads)));
    EXPECT_EQ(figures_of(q).threads, threads);
    EXPECT_EQ(figures_of(q).in_flight, threads);
    gate.open();
    EXPECT_TRUE(done.reaches(jobs));
  };
  occupy(3, 3);
  occupy(20, 4);
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).threads == 1; })) << "down to the minimum";
  krelev_jobq_set_concurrency(q, 100);
  krelev_jobq_set_floor(q, 3);
  occupy(20, 8);  // no more than max
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).threads == 3; }));
  krelev_jobq_set_concurrency(q, 2);
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).threads == 2; })) << "also below the floor";
  occupy(20, 2);
  krelev_jobq_set_min_max(q, 0, 2);
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).threads == 0; }));
  occupy(20, 2);
  uint32_t min, max;
  krelev_jobq_get_min_max(q, &min, &max);
  EXPECT_EQ(min, 0u);
  EXPECT_EQ(max, 2u);
}

// The queue is full of waiting jobs that only a raised concurrency can free.
TEST(jobq, raising_the_concurrency_takes_effect_on_what_is_queued) {
  krelev_run_c run({{"concurrency", "1"}});
  krelev_jobq_t *q = krelev_jobq_create("q");
  std::barrier meet(4);
  counter_c done;
  for (int i = 0; i < 4; ++i) {
    krelev_jobq_run(q, [&] {
      meet.arrive_and_wait();
      done.add();
    });
  }
  krelev_jobq_set_concurrency(q, 4);
  EXPECT_TRUE(done.reaches(4));
}

TEST(jobq, sub_queues_run_in_order_and_one_at_a_time_beside_each_other) {
  for (const char *value : {"4,1,4,gc", "4,1,4,gc,0,lifo"}) {
    krelev_run_c run({{"concurrency", "2"}, {"jobq_q", value}});
    krelev_jobq_t *q = krelev_jobq_retrieve("q");
    constexpr int k_queues = 5, k_jobs = 4000;
    struct lane_t {
      std::atomic<int> inside{0};
      int next = 0;  // kept by the order alone
      bool wrong = false;
    } lanes[k_queues];
    counter_c done;
    std::atomic<int> loose{0};
    std::vector<std::thread> producers;
    for (int lane = 0; lane < k_queues; ++lane) {
      producers.emplace_back([&, lane] {
        for (int i = 0; i < k_jobs; ++i) {
          auto work = [&l = lanes[lane], i] {
            if (l.inside++ != 0 || l.next != i) l.wrong = true;
            ++l.next;
            --l.inside;
          };
          krelev_add_asynch_subqueue(q, lambda_job_c::make(work, [&] { done.add(); }),
                                     static_cast<uint64_t>(lane + 1));
          if (i % 4 == 0) krelev_jobq_run(q, [&] { ++loose; });
        }
      });
    }
    for (std::thread &producer : producers) producer.join();
    ASSERT_TRUE(done.reaches(k_queues * k_jobs));
    for (const lane_t &lane : lanes) EXPECT_FALSE(lane.wrong);
    EXPECT_TRUE(becomes_true([&] { return loose == k_queues * k_jobs / 4; }));
    EXPECT_TRUE(becomes_true([&] { return figures_of(q).total == k_queues * k_jobs * 5 / 4; }));
  }
}

// A blocked sub-queue holds up nobody else, even where its jobs fill the queue.
TEST(jobq, a_blocked_sub_queue_takes_one_thread_only) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "2,1,2"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  gate_c gate;
  counter_c blocked, others;
  for (int i = 0; i < 50; ++i)
    krelev_add_asynch_subqueue(q, lambda_job_c::make([&] { gate.pass(); }, [&] { blocked.add(); }), 1);
  ASSERT_TRUE(gate.entered(1));
  for (uint64_t i = 0; i < 50; ++i)
    krelev_add_asynch_subqueue(q, lambda_job_c::make({}, [&] { others.add(); }), 2 + i % 7);
  EXPECT_TRUE(others.reaches(50));
  EXPECT_EQ(blocked.get(), 0);
  gate.open();
  EXPECT_TRUE(blocked.reaches(50));
}

// Many producers with pauses of all lengths, threads coming and going: a lost wake would leave jobs.
TEST(jobq, no_job_is_left_behind_while_threads_come_and_go) {
  krelev_run_c run({{"concurrency", "2"}, {"jobq_q", "3,0,6,gc"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  q->set_idle_limit(20000);
  constexpr int k_producers = 3, k_bursts = 300, k_burst = 12;
  std::atomic<bool> stop{false};
  std::thread setter([&] {
    for (uint32_t n = 0; !stop; ++n) {
      krelev_jobq_set_concurrency(q, 1 + n % 6);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> producers;
  for (unsigned p = 0; p < k_producers; ++p) {
    producers.emplace_back([&, p] {
      std::minstd_rand random(p + 1);
      for (int burst = 0; burst < k_bursts; ++burst) {
        counter_c done;
        for (int i = 0; i < k_burst; ++i)
          krelev_add_asynch_subqueue(q, lambda_job_c::make({}, [&] { done.add(); }), random() % 3);
        ASSERT_TRUE(done.reaches(k_burst));
        for (uint64_t until = krel_gethrtime() + random() % 40000; krel_gethrtime() < until;) {
        }
      }
    });
  }
  for (std::thread &producer : producers) producer.join();
  stop = true;
  setter.join();
  EXPECT_TRUE(becomes_true([&] { return figures_of(q).total == uint64_t{k_producers} * k_bursts * k_burst; }));
}

TEST(jobq, drain_runs_everything_also_what_jobs_add_and_then_nothing) {
  krelev_run_c run({{"concurrency", "1"}});
  krelev_jobq_t *q = krelev_jobq_create_ms("q", true);
  krelev_jobq_set_concurrency(q, 3);
  std::atomic<int> ran{0};
  for (int i = 0; i < 500; ++i) {
    krelev_jobq_run(q, [&, q] {
      ++ran;
      krelev_jobq_run(q, [&] { ++ran; });
    });
  }
  krelev_jobq_drain_and_shutdown(q);
  EXPECT_EQ(ran, 1000);
  EXPECT_EQ(figures_of(q).threads, 0u);
  krelev_event_t late = lambda_job_c::make([&] { ++ran; }, {});
  EXPECT_FALSE(krelev_try_add_asynch(q, late));
  lambda_job_c::free(late);
  krelev_jobq_run(q, [&] { ++ran; });
  krelev_jobq_destroy(q);
  EXPECT_EQ(ran, 1000);
  EXPECT_EQ(krelev_jobq_retrieve("q"), nullptr);
  krelev_jobq_t *again = krelev_jobq_create("q");
  ASSERT_NE(again, nullptr) << "the name is free again";
  krelev_jobq_drain_and_shutdown(again);
  krelev_jobq_run(again, [&] { ++ran; });
  run.stop();  // neither waits for the late job nor runs it
  EXPECT_EQ(ran, 1000);
}

TEST(jobq, stop_carries_chains_over_loops_and_queues_to_their_end) {
  int length = 0;
  {
    krelev_run_c run({{"concurrency", "2"}, {"jobq_a", "1,1,1"}, {"jobq_b", "2,1,2,gc"}});
    std::function<void()> step = [&] {
      if (++length == 20) return;
      krelev_event_t event = lambda_job_c::make({}, [&] { step(); });
      krelev_set_owner(event, krelev_choose_owner(length));
      krelev_add_asynch(krelev_jobq_retrieve(length % 3 == 0 ? "a" : "b"), event);
    };
    krelev_post(krelev_choose_owner(0), step);
    run.stop();
  }
  EXPECT_EQ(length, 20);
}

TEST(jobq, figures_tell_waiting_from_running) {
  krelev_run_c run({{"concurrency", "1"}, {"jobq_q", "1,1,1"}});
  krelev_jobq_t *q = krelev_jobq_retrieve("q");
  auto run_for = [](uint64_t ns) {
    for (uint64_t until = krel_gethrtime() + ns; krel_gethrtime() < until;) {
    }
  };
  gate_c gate;
  krelev_jobq_run(q, [&] { gate.pass(); });
  ASSERT_TRUE(gate.entered(1));
  for (int i = 0; i < 10; ++i) krelev_jobq_run(q, [&] { run_for(1000000); });
  gate.open();
  ASSERT_TRUE(becomes_true([&] { return figures_of(q).total == 11; }));
  krelev_jobq_figures_t figures = figures_of(q);
  EXPECT_GE(figures.run_p99_us, 900);
  EXPECT_GE(figures.run_mean_us, 900);
  // The k-th waited for the k - 1 before it: 4.1 ms and more in the mean over all eleven.
  EXPECT_GE(figures.wait_mean_us, 4000);
  EXPECT_GE(figures.wait_p99_us, 8400);
}
