// Updates from several threads at once: per-thread cells should cost the same with any number of them.

#include <benchmark/benchmark.h>

#include <string>

#include "platform/tolvmetrics/stats.h"

namespace {

stats_recorder_t *recorder() {
  static stats_recorder_t *const the_recorder = [] {
    stats_recorder_t *made = stats_recorder_alloc();
    for (int i = 0; i < 500; ++i)
      stats_register(stats_recorder_global_ns(made), ("filler" + std::to_string(i)).c_str(),
                     STATS_TYPE_COUNTER);
    return made;
  }();
  return the_recorder;
}

stats_handle_t *handle(const char *name, int kind) {
  return stats_register(stats_recorder_global_ns(recorder()), name, kind);
}

void counter_add(benchmark::State &state) {
  stats_handle_t *counter = handle("counter", STATS_TYPE_COUNTER);
  for (auto _ : state) stats_add64(counter, 1);
}
BENCHMARK(counter_add)->Threads(1)->Threads(2)->Threads(4);

void gauge_add(benchmark::State &state) {
  stats_handle_t *gauge = handle("gauge", STATS_TYPE_GAUGE_U64);
  for (auto _ : state) stats_add64(gauge, 1);
}
BENCHMARK(gauge_add)->Threads(1)->Threads(2)->Threads(4);

void histogram_insert(benchmark::State &state) {
  stats_handle_t *hist = handle("histogram", STATS_TYPE_HISTOGRAM);
  int64_t ns = 1000;
  for (auto _ : state) {
    stats_set_hist_intscale(hist, ns, -9, 1);
    ns = ns * 5 % 1000003;
  }
}
BENCHMARK(histogram_insert)->Threads(1)->Threads(2)->Threads(4);

void output_json(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(stats_recorder_output_json(recorder(), false, false));
}
BENCHMARK(output_json);

}  // namespace
