// How fast a shard is rolled up into four periods when its cells are only counted.
#include <benchmark/benchmark.h>

#include "rollup_bench_store.h"

namespace {

using namespace rollup_bench;

class counting_target_c : public rollup_target_c {
 public:
  explicit counting_target_c(unsigned period_s) : m_period_s(period_s) {}
  unsigned get_period_s() const override { return m_period_s; }
  bool write_numeric(const metric_locator_sp &, uint64_t, std::span<const nnt_multitype> cells) override {
    m_cells += cells.size();
    benchmark::DoNotOptimize(cells.data());
    return true;
  }
  bool write_histograms(const metric_locator_sp &, std::span<const histogram_cell_t>) override { return true; }

 private:
  const unsigned m_period_s;
  std::atomic<size_t> m_cells{0};
};

// The argument: threads of the family jobs.
void BM_pass(benchmark::State &state) {
  static store_c store;
  counting_target_c minutes(60), fives(300), hours(3600), days(86400);
  const double cpu_before = process_cpu_s();
  for (auto _ : state) store.roll_up({&minutes, &fives, &hours, &days}, static_cast<unsigned>(state.range(0)));
  const auto samples = static_cast<double>(state.iterations()) * static_cast<double>(store.get_samples());
  state.counters["samples/s"] = benchmark::Counter(samples, benchmark::Counter::kIsRate);
  state.counters["cpu_ns"] = (process_cpu_s() - cpu_before) * 1e9 / samples;
}
BENCHMARK(BM_pass)->ArgName("threads")->Arg(1)->Arg(2)->Iterations(2)->UseRealTime()->Unit(
    benchmark::kMillisecond);

}  // namespace
