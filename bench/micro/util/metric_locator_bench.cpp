// Making locators, and what every sample does to one.
#include <benchmark/benchmark.h>

#include <string>

#include "util/metric_locator.h"
#include "util/oil.h"
#include "util/topo_hash.h"
#include "util/wyhash.h"

namespace {

const uint8_t UUID[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

metric_locator_sp locator(std::string_view name) {
  const mem_reader_t reader = {name.data(), name.size()};
  return metric_locator_adopt(velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, UUID, &reader));
}

void create(benchmark::State &state, const char *name) {
  const std::string copy = name;
  for (auto _ : state) benchmark::DoNotOptimize(locator(copy).get());
}
BENCHMARK_CAPTURE(create, no_tags, "request_duration");
BENCHMARK_CAPTURE(create, four_tags, "request_duration|ST[dc:ams,host:web01,method:get,service:api]");
BENCHMARK_CAPTURE(create, four_tags_unsorted, "request_duration|ST[service:api,method:get,host:web01,dc:ams]");

void sha256(benchmark::State &state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  uint8_t hash[TOPO_HASH_SIZE];
  for (auto _ : state) topo_hash(text.data(), text.size(), hash);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(sha256)->Arg(100)->Arg(1000);

void wyhash(benchmark::State &state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) benchmark::DoNotOptimize(util::wyhash(text));
}
BENCHMARK(wyhash)->Arg(16)->Arg(100)->Arg(1000);

void update_numeric_newer(benchmark::State &state) {
  const metric_locator_sp ml = locator("m");
  uint64_t now = 1;
  const velmar_metric_locator_numeric_value_t value = {.v_uint64 = 1};
  for (auto _ : state)
    velmar_metric_locator_update_numeric(ml.get(), now++, VELMAR_METRIC_UINT64, &value, true);
}
BENCHMARK(update_numeric_newer);

void update_numeric_older(benchmark::State &state) {
  const metric_locator_sp ml = locator("m");
  const velmar_metric_locator_numeric_value_t value = {.v_uint64 = 1};
  for (const uint64_t whence : {100, 200})
    velmar_metric_locator_update_numeric(ml.get(), whence, VELMAR_METRIC_UINT64, &value, true);
  for (auto _ : state) velmar_metric_locator_update_numeric(ml.get(), 50, VELMAR_METRIC_UINT64, &value, true);
}
BENCHMARK(update_numeric_older);

void record_activity(benchmark::State &state) {
  const metric_locator_sp ml = locator("m");
  uint64_t now = 1700000000;
  for (auto _ : state) benchmark::DoNotOptimize(velmar_metric_locator_record_activity(ml.get(), now += 60));
}
BENCHMARK(record_activity);

void oil_put_extends_tail(benchmark::State &state) {
  const oil_ptr list(oil_alloc());
  uint32_t now = 1;
  for (auto _ : state) {
    now++;
    benchmark::DoNotOptimize(oil_put(list.get(), now, now));
  }
}
BENCHMARK(oil_put_extends_tail);

void oil_put_in_tail(benchmark::State &state) {
  const oil_ptr list(oil_alloc());
  oil_put(list.get(), 10, 20);
  for (auto _ : state) benchmark::DoNotOptimize(oil_put(list.get(), 15, 15));
}
BENCHMARK(oil_put_in_tail);

void oil_range_contains_among(benchmark::State &state) {
  const oil_ptr list(oil_alloc());
  for (uint32_t i = 1; i <= state.range(0); i++) oil_put(list.get(), i * 1000, i * 1000 + 100);
  uint32_t at = 0;
  for (auto _ : state) {
    at = (at + 7919) % (static_cast<uint32_t>(state.range(0)) * 1000);
    benchmark::DoNotOptimize(oil_range_contains(list.get(), at, at + 10, nullptr));
  }
}
BENCHMARK(oil_range_contains_among)->Arg(1)->Arg(16)->Arg(1024);

}  // namespace
