// Reads of rollup cells through the readers: a day of minutes as they are and merged to five, and 30 days of
// minutes of which samples have every other one and rollups the rest.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "db/ranged/dispatch_reader.h"
#include "db/ranged/nntbs/nntbs.h"
#include "db/ranged/nntbs_reader.h"
#include "db/ranged/run_iter.h"
#include "platform/krel/base/krel_conf.h"

namespace {

constexpr uint64_t DAY_S = 86400, START_S = 1700006400 / DAY_S * DAY_S, DAYS = 30, CELLS = DAYS * 1440;

// Every other cell, without a store behind it.
class half_reader_c : public db::kv::ranged_reader_c {
 public:
  half_reader_c() : m_cells(CELLS) {
    for (size_t i = 0; i < CELLS; i += 2) m_cells[i].type = NNT_TYPE_DOUBLE;
  }
  db::kv::iter_synch_up find_synch(const db::kv::ranged_c::key_c &key) const override {
    const db::kv::ranged_c::value_c run = {key.m_start, 60000, CELLS, m_cells.data()};
    return std::make_unique<db::ranged::run_iter_c<int>>(key.m_metric_locator, run, 0);
  }
  std::optional<uint64_t> get_epoch(const db::kv::ranged_c::key_c &) const override { return {}; }
  std::optional<uint64_t> get_apocalypse(const db::kv::ranged_c::key_c &) const override { return {}; }

 private:
  std::vector<nnt_multitype> m_cells;
};

class store_c {
 public:
  store_c() : m_path(std::filesystem::temp_directory_path() / "velmar_dispatch_bench") {
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
    m_config.period = 60;
    m_set.configs.push_back(&m_config);
    rollup_config_init(&m_set);
    krel_conf_load_text(
        "<velmar><nntbs><shard period=\"60\" size=\"1w\" initial_map_size=\"67108864\"/></nntbs></velmar>",
        "conf");
    nntbs_init(m_path, &m_set, nullptr, nullptr);
    const uint8_t uuid[16] = {};
    const mem_reader_t name = {"m", 1};
    metric = metric_locator_adopt(velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, uuid, &name));
    velmar_metric_locator_set_surrogate_id(metric.get(), 1);
    nnt_multitype cell = {};
    cell.type = NNT_TYPE_DOUBLE;
    cell.count = 6;
    cell.value.v_double = 0.5;
    const std::vector<nnt_multitype> cells(CELLS, cell);
    nntbs_put_range(START_S * 1000, metric, cells.data(), cells.size(), 60);
    reader_params.rollups = &m_set;
  }
  ~store_c() {
    nntbs_close();
    std::filesystem::remove_all(m_path);
  }
  db::kv::ranged_c::key_c key(uint64_t days, uint64_t span_s) const {
    return {metric, START_S * 1000, (START_S + days * DAY_S) * 1000, span_s * 1000, true, true};
  }
  metric_locator_sp metric;
  db::ranged::nntbs::reader_params_t reader_params;

 private:
  const std::filesystem::path m_path;
  rollup_config_t m_config;
  rollup_config_set_t m_set;
};

void read(benchmark::State &state, const db::kv::ranged_reader_c &reader, const db::kv::ranged_c::key_c &key) {
  uint64_t cells = 0, runs = 0;
  for (auto _ : state) {
    cells = runs = 0;
    for (auto iter = reader.find_synch(key); iter->is_valid(); iter->next(), runs++)
      cells += iter->get_value().m_count;
  }
  state.counters["cells"] = static_cast<double>(cells);
  state.counters["runs"] = static_cast<double>(runs);
}

void BM_day_of_minutes_from_rollups(benchmark::State &state) {
  const store_c store;
  read(state, db::ranged::nntbs::ctx_c(store.reader_params),
       store.key(1, static_cast<uint64_t>(state.range(0))));
}
BENCHMARK(BM_day_of_minutes_from_rollups)->ArgName("span_s")->Arg(60)->Arg(300)->Unit(benchmark::kMicrosecond);

void BM_every_other_cell_missing(benchmark::State &state) {
  const store_c store;
  const db::ranged::nntbs::ctx_c rollups(store.reader_params);
  const half_reader_c half;
  read(state, velmar_db_ranged_dispatch::ctx_c(&half, &rollups, true), store.key(DAYS, 60));
}
BENCHMARK(BM_every_other_cell_missing)->Unit(benchmark::kMillisecond);

}  // namespace
