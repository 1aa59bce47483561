// Cells in and out: a day of minutes written at once, a day of five minutes read, single cells as they come.
// NNTBS_BENCH_STORAGE=mdbx takes the other engine (its commits are synced).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "db/ranged/nntbs/nntbs.h"
#include "db/ranged/nntbs/nntbs_storage.h"
#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"

namespace {

constexpr uint64_t T0 = 1'700'000'000 / 86400 * 86400;
constexpr size_t DAY_60 = 1440, DAY_300 = 288;

metric_locator_sp metric(uint64_t id) {
  const uint8_t uuid[16] = {1, 2, 3, 4};
  const mem_reader_t name = {"m", 1};
  auto m = metric_locator_adopt(velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, uuid, &name));
  velmar_metric_locator_set_surrogate_id(m.get(), id);
  return m;
}

std::vector<nnt_multitype> cells(size_t count) {
  std::vector<nnt_multitype> out(count);
  for (size_t i = 0; i < count; ++i) {
    out[i].type = NNT_TYPE_DOUBLE;
    out[i].count = 6;
    out[i].stddev_present = 1;
    out[i].value.v_double = static_cast<double>(i) * 0.1;
  }
  return out;
}

// One store for the process, on a directory that goes with it.
struct store_t {
  store_t() {
    for (const char *stream : {"notice", "error"}) krel_log_stream_switch(stream, false);
    const char *const base = getenv("TMPDIR"), *const storage = getenv("NNTBS_BENCH_STORAGE");
    path = std::string(base && *base ? base : "/tmp") + "/velmar_nntbs_bench";
    std::filesystem::remove_all(path);
    krel_assert(krel_conf_load_text(
        std::string("<velmar><nntbs shard_storage_type='") + (storage ? storage : "") +
            "'><shard period='60' size='4w' initial_map_size='8G'/><shard period='300' size='4w' "
            "initial_map_size='8G'/></nntbs></velmar>",
        "bench.conf"));
    for (const unsigned period : {60U, 300U}) {
      auto *config = new rollup_config_t;
      config->period = period;
      set.configs.push_back(config);
    }
    rollup_config_init(&set);
    nntbs_init(path, &set, nullptr, nullptr);
  }
  ~store_t() {
    nntbs_close();
    std::filesystem::remove_all(path);
  }
  double bytes() const {
    double sum = 0;
    struct stat st;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(path))
      if (entry.is_regular_file() && stat(entry.path().c_str(), &st) == 0)
        sum += static_cast<double>(st.st_blocks) * 512;
    return sum;
  }
  std::string path;
  rollup_config_set_t set;
};
store_t &store() {
  static store_t s;
  return s;
}

void put_a_day_of_a_new_metric(benchmark::State &state) {
  store();
  const auto day = cells(DAY_60);
  static uint64_t id = 1000000;
  const auto m = metric(1);
  for (auto _ : state) {
    velmar_metric_locator_set_surrogate_id(m.get(), ++id);
    if (nntbs_put_range(T0 * 1000, m, day.data(), day.size(), 60) != 0) state.SkipWithError("put");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * DAY_60));
}
BENCHMARK(put_a_day_of_a_new_metric);

void put_a_day_again(benchmark::State &state) {
  store();
  const auto day = cells(DAY_60);
  uint64_t id = 0;
  std::vector<metric_locator_sp> metrics;
  for (uint64_t i = 0; i < 100; ++i) {
    metrics.push_back(metric(10 + i));
    nntbs_put_range(T0 * 1000, metrics.back(), day.data(), day.size(), 60);
  }
  for (auto _ : state)
    if (nntbs_put_range(T0 * 1000, metrics[++id % 100], day.data(), day.size(), 60) != 0)
      state.SkipWithError("put");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * DAY_60));
}
BENCHMARK(put_a_day_again);

void put_a_cell(benchmark::State &state) {
  store();
  const auto cell = cells(1);
  const auto m = metric(5);
  uint64_t i = 0;
  for (auto _ : state)
    if (nntbs_put((T0 + 60 * (++i % 20000)) * 1000, m, cell[0], 60) != 0) state.SkipWithError("put");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(put_a_cell);

// A thousand metrics; which one is asked for is random.
void get_a_day(benchmark::State &state) {
  store();
  static const bool filled = [] {
    const auto week = cells(7 * DAY_300);
    for (uint64_t i = 0; i < 1000; ++i)
      nntbs_put_range(T0 * 1000, metric(1 + i), week.data(), week.size(), 300);
    return true;
  }();
  benchmark::DoNotOptimize(filled);
  std::mt19937_64 random(static_cast<uint64_t>(state.thread_index()));
  std::vector<nnt_multitype> out(DAY_300);
  const auto m = metric(1);
  for (auto _ : state) {
    velmar_metric_locator_set_surrogate_id(m.get(), 1 + random() % 1000);
    if (nntbs_get_range(T0 + random() % 6 * 86400, m, 300, DAY_300, out.data(), nullptr, nullptr, nullptr) !=
        DAY_300)
      state.SkipWithError("get");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * DAY_300));
}
BENCHMARK(get_a_day)->ThreadRange(1, 2)->UseRealTime();

// Bytes on disk for a cell when every slot is taken, metrics in random order.
void disk_of_a_cell(benchmark::State &state) {
  const auto block = cells(127 * 8);
  const double before = store().bytes();
  uint64_t written = 0;
  std::mt19937_64 random(1);
  for (auto _ : state) {
    nntbs_put_range(T0 / 38100 * 38100 * 1000, metric(random()), block.data(), block.size(), 300);
    written += block.size();
  }
  state.counters["bytes_a_cell"] = (store().bytes() - before) / static_cast<double>(written);
}
BENCHMARK(disk_of_a_cell)->Iterations(4000);

}  // namespace
