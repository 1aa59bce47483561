#include <benchmark/benchmark.h>

#include <latch>
#include <thread>

#include "util/concurrency/executor.h"
#include "util/concurrency/libvelmar_join.h"
#include "util/concurrency/mp_sc_smart_batcher.h"
#include "util/concurrency/sp_sc_channel.h"

using namespace util::concurrency;

namespace {

void channel_throughput(benchmark::State &state) {
  sp_sc_channel_c<uint64_t> channel(static_cast<size_t>(state.range(0)));
  std::thread consumer([&] {
    while (const auto value = channel.recv_wait()) benchmark::DoNotOptimize(*value);
  });
  uint64_t n = 0;
  for (auto _ : state) channel.send_wait(++n);
  channel.shutdown();
  consumer.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(channel_throughput)->Arg(64)->Arg(4096)->UseRealTime();

void batcher_add_take(benchmark::State &state) {
  mp_sc_smart_batcher_c<uint64_t> batcher;
  for (auto _ : state) {
    for (uint64_t i = 0; i < 64; ++i) batcher.add(i);
    benchmark::DoNotOptimize(batcher.take().data());
  }
  state.SetItemsProcessed(state.iterations() * 64);
}
BENCHMARK(batcher_add_take);

// Functions per second through one queue, submitted in bursts of 1024.
void executor_throughput(benchmark::State &state) {
  executor_c executor("bench", static_cast<uint32_t>(state.range(0)));
  constexpr int k_burst = 1024;
  for (auto _ : state) {
    std::latch done(k_burst);
    for (int i = 0; i < k_burst; ++i) executor.submit([&done] { done.count_down(); });
    done.wait();
  }
  state.SetItemsProcessed(state.iterations() * k_burst);
}
BENCHMARK(executor_throughput)->Arg(1)->Arg(2)->UseRealTime();

// One function there and its result back, one at a time.
void executor_round_trip(benchmark::State &state) {
  executor_c executor("bench_trip", 1);
  for (auto _ : state) benchmark::DoNotOptimize(submit_on(executor, [] { return 1; }));
}
BENCHMARK(executor_round_trip)->UseRealTime();

// CPU of eight idle threads, in percent of one core.
void executor_idle_cpu(benchmark::State &state) {
  executor_c executor("bench_idle", 8);
  for (uint32_t i = 0; i < 8; ++i)
    submit_on(
        executor, [] {}, i);
  double percent = 0;
  for (auto _ : state) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // past the last doubling
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    percent = 100.0 * static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC / 2;
  }
  state.counters["core_percent"] = percent;
}
BENCHMARK(executor_idle_cpu)->Iterations(1)->UseRealTime();

// A request's tree: a root, two children, two steps each.
void join_tree(benchmark::State &state) {
  for (auto _ : state) {
    libvelmar_join_t root = libvelmar_join_create(nullptr, nullptr);
    for (int c = 0; c < 2; ++c) {
      libvelmar_join_t child = libvelmar_join_create_child(root, nullptr, nullptr);
      libvelmar_join_raise(child, 2);
      libvelmar_join_commit(child);
      libvelmar_join_one(child);
      libvelmar_join_one(child);
    }
    libvelmar_join_commit(root);
  }
}
BENCHMARK(join_tree);

}  // namespace
