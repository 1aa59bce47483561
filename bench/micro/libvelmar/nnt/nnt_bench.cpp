// Folding samples into the cells of four periods, as the rollup of a raw shard does.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "libvelmar/nnt/nnt_accumulator.h"

namespace {

const uint64_t START_MS = 1'700'006'400'000, DAY_MS = 86'400'000;
const uint64_t PERIODS_MS[] = {60'000, 300'000, 3'600'000, DAY_MS};

std::vector<metric_value_t> day(uint64_t step_ms, velmar_metric_type_t type) {
  std::vector<metric_value_t> samples;
  uint64_t level = 0;
  for (uint64_t t = START_MS; t < START_MS + DAY_MS; t += step_ms) {
    metric_value_t value{};
    value.whence_ms = t;
    value.type = type;
    level += t / 7 % 101;
    if (type == VELMAR_METRIC_DOUBLE)
      value.storage.v_double = static_cast<double>(t / 3 % 1000) / 7;
    else
      value.storage.v_uint64 = level;
    samples.push_back(value);
  }
  return samples;
}

// A day of one metric; the argument is the time between its samples, ms.
void accumulator(benchmark::State &state, velmar_metric_type_t type) {
  init_private_nan();
  const auto samples = day(static_cast<uint64_t>(state.range(0)), type);
  nnt_accumulator_c accumulator(START_MS, START_MS + DAY_MS, PERIODS_MS);
  for (auto _ : state) {
    for (const metric_value_t &v : samples) accumulator.add(v);
    for (size_t p = 0; p < std::size(PERIODS_MS); p++)
      benchmark::DoNotOptimize(accumulator.get_cells(p).data());
    accumulator.reset();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(samples.size()));
}
BENCHMARK_CAPTURE(accumulator, double, VELMAR_METRIC_DOUBLE)->Arg(1000)->Arg(10'000)->Arg(60'000);
BENCHMARK_CAPTURE(accumulator, uint64, VELMAR_METRIC_UINT64)->Arg(1000)->Arg(10'000)->Arg(60'000);

// The same by add_data_to_bucket, period by period.
void cell_by_cell(benchmark::State &state, velmar_metric_type_t type) {
  init_private_nan();
  const auto samples = day(static_cast<uint64_t>(state.range(0)), type);
  std::vector<nnt_multitype> cells;
  std::vector<int> drun, crun;
  for (auto _ : state) {
    for (const uint64_t period : PERIODS_MS) {
      const size_t count = DAY_MS / period;
      cells.assign(count, {});
      drun.assign(count, 0);
      crun.assign(count, 0);
      metric_value_t *last = nullptr;
      for (const metric_value_t &v : samples) {
        const size_t i = (v.whence_ms - START_MS) / period;
        add_data_to_bucket(v, &last, &cells[i], &drun[i], &crun[i]);
      }
      free(last);
      benchmark::DoNotOptimize(cells.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(samples.size()));
}
BENCHMARK_CAPTURE(cell_by_cell, double, VELMAR_METRIC_DOUBLE)->Arg(1000)->Arg(60'000);
BENCHMARK_CAPTURE(cell_by_cell, uint64, VELMAR_METRIC_UINT64)->Arg(1000)->Arg(60'000);

void rollup_of_cells(benchmark::State &state) {
  init_private_nan();
  std::vector<nnt_multitype> cells(60);
  for (size_t i = 0; i < cells.size(); i++) {
    cells[i].type = NNT_TYPE_DOUBLE;
    cells[i].count = 6;
    cells[i].stddev_present = 1;
    cells[i].stddev = 1;
    cells[i].value.v_double = static_cast<double>(i) / 3;
  }
  for (auto _ : state) {
    nnt_multitype a{};
    nnt_multitype_rollup(&a, 0, cells.size(), cells.data(), 1);
    benchmark::DoNotOptimize(a);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(cells.size()));
}
BENCHMARK(rollup_of_cells);

}  // namespace
