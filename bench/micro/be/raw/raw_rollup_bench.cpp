// How fast a shard is rolled up into four periods of the store of cells. The second pass overwrites the first.
#include <benchmark/benchmark.h>

#include "../../db/raw/rollup/rollup_bench_store.h"
#include "be/raw/numeric_rollup_target.h"
#include "db/ranged/nntbs/nntbs.h"
#include "platform/krel/base/krel_conf.h"

namespace {

using namespace rollup_bench;
using be::raw::numeric_rollup_target_c;

void BM_pass_into_the_store(benchmark::State &state) {
  static store_c store;
  const auto path = std::filesystem::temp_directory_path() / "velmar_rollup_bench_cells";
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  krel_assert(
      krel_conf_load_text("<velmar><nntbs><shard period='60' size='1d'/><shard period='300' size='1w'/>"
                          "<shard period='3600' size='4w'/><shard period='86400' size='52w'/></nntbs></velmar>",
                          "bench.conf"));
  init_private_nan();
  static rollup_config_set_t configs;
  if (configs.configs.empty())
    for (const unsigned period : {60, 300, 3600, 86400}) {
      configs.configs.push_back(new rollup_config_t);
      configs.configs.back()->period = period;
    }
  nntbs_init(path, &configs, std::make_shared<lookup_c>(), nullptr);
  numeric_rollup_target_c minutes(60), fives(300), hours(3600), days(86400);
  const double cpu_before = process_cpu_s();
  for (auto _ : state) store.roll_up({&minutes, &fives, &hours, &days}, static_cast<unsigned>(state.range(0)));
  const auto samples = static_cast<double>(state.iterations()) * static_cast<double>(store.get_samples());
  state.counters["samples/s"] = benchmark::Counter(samples, benchmark::Counter::kIsRate);
  state.counters["cpu_ns"] = (process_cpu_s() - cpu_before) * 1e9 / samples;
  nntbs_close();
  std::filesystem::remove_all(path);
}
BENCHMARK(BM_pass_into_the_store)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
