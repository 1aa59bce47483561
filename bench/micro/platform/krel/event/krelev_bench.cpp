// Cost of the way loop -> queue -> loop, of posts, timers and coroutines.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"

namespace {

class run_c {
 public:
  explicit run_c(const char *queue) {
    krelev_config("concurrency", "2");
    krelev_config("jobq_bench", queue);
    krelev_init();
    krelev_start_threads();
    jobq = krelev_jobq_retrieve("bench");
  }
  ~run_c() { krelev_stop(); }
  krelev_jobq_t *jobq;
};

// One hop at a time, measured on the loop from adding the job to its completion. `pause_us` lies
// between hops: at 0 all threads are warm, above some tens of microseconds they sleep.
struct idle_hops_t {
  krelev_jobq_t *jobq;
  int left;
  uint64_t pause_us;
  uint64_t added_ns = 0;
  std::vector<uint64_t> took_ns{};
  std::latch done{1};

  void add() {
    krelev_event_t event = krelev_alloc_asynch(on_job, this);
    added_ns = krel_gethrtime();
    krelev_add_asynch(jobq, event);
  }
  static int on_job(krelev_event_t, int mask, void *closure, const struct timeval *) {
    auto *self = static_cast<idle_hops_t *>(closure);
    if (mask == KRELEV_ASYNCH_COMPLETE) self->completed();
    return 0;
  }
  static int on_timer(krelev_event_t, int, void *closure, const struct timeval *) {
    static_cast<idle_hops_t *>(closure)->add();
    return 0;
  }
  void completed() {
    took_ns.push_back(krel_gethrtime() - added_ns);
    if (--left == 0) return done.count_down();
    if (pause_us == 0) return add();
    uint64_t at = krel_now_us() + pause_us;
    struct timeval when = {static_cast<time_t>(at / 1000000), static_cast<suseconds_t>(at % 1000000)};
    krelev_add(krelev_alloc_timer(on_timer, this, &when));
  }
};

void hop_idle(benchmark::State &state) {
  run_c run("4,1,4,gc");
  std::vector<uint64_t> all;
  for (auto _ : state) {
    idle_hops_t hops{run.jobq, state.range(0) == 0 ? 20000 : 500, static_cast<uint64_t>(state.range(0))};
    krelev_post(krelev_choose_owner(0), [&] { hops.add(); });
    hops.done.wait();
    all.insert(all.end(), hops.took_ns.begin(), hops.took_ns.end());
  }
  std::sort(all.begin(), all.end());
  state.counters["p50_us"] = static_cast<double>(all[all.size() / 2]) / 1000;
  state.counters["p99_us"] = static_cast<double>(all[all.size() * 99 / 100]) / 1000;
}
BENCHMARK(hop_idle)->ArgName("pause_us")->Arg(0)->Arg(2000)->UseRealTime()->Unit(benchmark::kMillisecond);

// Many hops under way; each completion adds the next.
struct loaded_t {
  krelev_jobq_t *jobq;
  int64_t to_add;
  std::latch done;

  static int on_job(krelev_event_t, int mask, void *closure, const struct timeval *) {
    if (mask == KRELEV_ASYNCH_COMPLETE) {
      auto *self = static_cast<loaded_t *>(closure);
      if (self->to_add > 0) {
        --self->to_add;
        krelev_add_asynch(self->jobq, krelev_alloc_asynch(on_job, self));
      }
      self->done.count_down();
    }
    return 0;
  }
};

void hops_loaded(benchmark::State &state, const char *queue, int loops) {
  run_c run(queue);
  constexpr int64_t k_hops = 200000, k_under_way = 512;
  for (auto _ : state) {
    std::vector<std::unique_ptr<loaded_t>> loads;
    for (int i = 0; i < loops; ++i)
      loads.push_back(
          std::unique_ptr<loaded_t>(new loaded_t{run.jobq, k_hops - k_under_way, std::latch(k_hops)}));
    for (int i = 0; i < loops; ++i) {
      krelev_post(krelev_choose_owner(i), [load = loads[i].get()] {
        for (int64_t n = 0; n < k_under_way; ++n)
          krelev_add_asynch(load->jobq, krelev_alloc_asynch(loaded_t::on_job, load));
      });
    }
    for (auto &load : loads) load->done.wait();
  }
  state.SetItemsProcessed(state.iterations() * k_hops * loops);
}
BENCHMARK_CAPTURE(hops_loaded, one_thread, "1,1,1,gc", 1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(hops_loaded, four_threads, "4,1,4,gc", 1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(hops_loaded, four_threads_two_loops, "4,1,4,gc", 2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void posts(benchmark::State &state) {
  run_c run("1,1,1");
  constexpr int k_posts = 200000;
  for (auto _ : state) {
    std::atomic<int> left{k_posts};
    std::latch done(1);
    pthread_t owner = krelev_choose_owner(1);
    for (int i = 0; i < k_posts; ++i) {
      krelev_post(owner, [&] {
        if (left.fetch_sub(1, std::memory_order_relaxed) == 1) done.count_down();
      });
    }
    done.wait();
  }
  state.SetItemsProcessed(state.iterations() * k_posts);
}
BENCHMARK(posts)->UseRealTime()->Unit(benchmark::kMillisecond);

// Timers that are set and cancelled, as deadlines of requests are, on the loop.
void timers_cancelled(benchmark::State &state) {
  run_c run("1,1,1");
  constexpr int k_timers = 100000;
  for (auto _ : state) {
    std::latch done(1);
    krelev_post(krelev_choose_owner(0), [&] {
      struct timeval when = {static_cast<time_t>(krel_now_us() / 1000000 + 30), 0};
      for (int i = 0; i < k_timers; ++i) {
        krelev_event_t timer = krelev_alloc_timer(
            [](krelev_event_t, int, void *, const struct timeval *) { return 0; }, nullptr, &when);
        krelev_add(timer);
        if (krelev_remove_timed(timer)) krelev_free(timer);
      }
      done.count_down();
    });
    done.wait();
  }
  state.SetItemsProcessed(state.iterations() * k_timers);
}
BENCHMARK(timers_cancelled)->UseRealTime()->Unit(benchmark::kMillisecond);

// Coroutines that start, go to a queue once and end.
struct coroutines_t {
  krelev_jobq_t *jobq;
  std::latch done;
  static void body(void *closure) {
    auto *self = static_cast<coroutines_t *>(closure);
    krelev_aco_simple_asynch_queue_subqueue(
        self->jobq, KRELEV_NO_SUBQUEUE, [](void *) {}, nullptr);
    self->done.count_down();
  }
};

void coroutines(benchmark::State &state) {
  run_c run("2,1,2");
  auto count = state.range(0);
  for (auto _ : state) {
    coroutines_t all{run.jobq, std::latch(count)};
    krelev_post(krelev_choose_owner(0), [&] {
      for (int64_t i = 0; i < count; ++i) krelev_aco_start(coroutines_t::body, &all);
    });
    all.done.wait();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(coroutines)->ArgName("at_once")->Arg(100)->Arg(10000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
