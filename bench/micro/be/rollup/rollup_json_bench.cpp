// A day of five-minute cells as JSON, and the numbers in it against printf.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "be/nntbs/print_number.h"
#include "be/rollup/rollup_json.h"

namespace {

std::vector<nnt_multitype> day(bool whole) {
  std::vector<nnt_multitype> cells(288);
  for (size_t i = 0; i < cells.size(); i++) {
    nnt_multitype &cell = cells[i];
    cell.count = 5;
    cell.stddev_present = 1;
    cell.stddev = static_cast<float>(i) / 7;
    cell.derivative = cell.counter = static_cast<float>(i) / 300;
    cell.type = whole ? NNT_TYPE_UINT64 : NNT_TYPE_DOUBLE;
    if (whole)
      cell.value.v_uint64 = i * 1'000'003;
    else
      cell.value.v_double = static_cast<double>(i) / 3;
  }
  return cells;
}

void json(benchmark::State &state, nnt_multitype_part part, bool whole) {
  const auto cells = day(whole);
  size_t bytes = 0;
  for (auto _ : state) {
    std::string payload = "[";
    payload.reserve(16 * 1024);
    bool has_items = false;
    velmar_be_rollup::build_json_output({1'700'006'400'000, 300'000, cells.size(), cells.data()}, part,
                                        &has_items, &payload);
    benchmark::DoNotOptimize(payload.data());
    bytes += payload.size();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK_CAPTURE(json, average_whole, NNT_AVERAGE, true);
BENCHMARK_CAPTURE(json, average_double, NNT_AVERAGE, false);
BENCHMARK_CAPTURE(json, all, NNT_ALL, false);

void number(benchmark::State &state, char *(*print)(char *, double)) {
  double value = 0.1;
  char text[PRINT_NUMBER_MAX];
  for (auto _ : state) {
    value = value * 1.1 > 1e6 ? 0.1 : value * 1.1;
    benchmark::DoNotOptimize(print(text, value));
  }
}
char *by_printf(char *out, double value) {
  return out + snprintf(out, PRINT_NUMBER_MAX, "%.20g", value);
}
BENCHMARK_CAPTURE(number, own, print_double);
BENCHMARK_CAPTURE(number, printf, by_printf);

}  // namespace
