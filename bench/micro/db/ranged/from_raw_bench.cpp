// Reads of one metric that are made from raw samples: a day of minutes, and 100,000 samples. `fresh` samples
// came one by one and lie in memory as RocksDB merges; the others are in table files.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "db/ranged/from_raw_reader.h"
#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/record/raw_write_error.h"
#include "util/concurrency/tolv_timed_mock.h"

namespace {

constexpr uint64_t METRICS = 100, DAY_S = 86400, NOW_S = 1700006400 / DAY_S * DAY_S;
constexpr uint64_t WEEK_S = 7 * DAY_S, START_MS = (NOW_S - NOW_S % WEEK_S) * 1000;

class store_c {
 public:
  // `samples` of each metric, every step_ms, in the order of their arrival at a node.
  store_c(uint64_t samples, uint64_t step_ms, bool fresh)
      : m_path(std::filesystem::temp_directory_path() / "velmar_ranged_bench") {
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
    velmar_db_admin_rocksdb_init_types(&m_types);
    velmar_db_raw_nom::data_db_params_t db_params;
    db_params.manager = &m_manager;
    db_params.type = velmar_db_raw_nom_create_type(&m_types);
    m_dbs = std::make_unique<velmar_db_raw_nom::factory_c>(db_params);
    const struct timeval now = {static_cast<time_t>(NOW_S + WEEK_S), 0};
    static_cast<tolv_timed_mock::runner_c *>(m_timers.get_default_runner())->run_until(now);
    db::raw::raw_shard_factory_params_t params;
    params.basedir = m_path;
    params.granularity_s = WEEK_S;
    params.min_delete_age_s = 365 * DAY_S;
    params.db_factory = m_dbs.get();
    params.timer_factory = &m_timers;
    m_shards = std::make_unique<db::raw::raw_shard_factory_c>(params);
    fill(samples, step_ms);
    if (!fresh) m_shards->find_shard_for(START_MS, db::raw::MUST_EXIST).shard->get_db()->flush();
  }
  ~store_c() {
    m_shards.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
    std::filesystem::remove_all(m_path);
  }
  const db::raw::raw_shard_factory_c *shards() const { return m_shards.get(); }

 private:
  struct discard_closure_t : db::raw::is_raw_write_closure_t {
    void on_success() override {}
    void on_error(const db::raw::raw_write_error_c &) override {}
    void on_complete() override {}
  };
  void fill(uint64_t samples, uint64_t step_ms) {
    const auto shard = m_shards->find_shard_for(START_MS, db::raw::CREATE_IF_MISSING).shard;
    std::vector<db::raw::nom_sample_t> round(METRICS);
    discard_closure_t closure;
    for (uint64_t i = 0; i < samples; i++) {
      for (uint64_t id = 1; id <= METRICS; id++)
        round[id - 1] = db::raw::nom_sample_t::of_double(id, START_MS + i * step_ms,
                                                         static_cast<double>(i * id % 1000) / 8);
      shard->write_numeric_asynch(round, &closure);
    }
  }

  const std::filesystem::path m_path;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::unique_ptr<velmar_db_raw_nom::factory_c> m_dbs;
  tolv_timed_mock::factory_c m_timers;
  std::unique_ptr<db::raw::raw_shard_factory_c> m_shards;
};

metric_locator_sp metric_of(uint64_t id) {
  const uint8_t uuid[16] = {};
  const mem_reader_t name = {"m", 1};
  auto metric = metric_locator_adopt(velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, uuid, &name));
  velmar_metric_locator_set_surrogate_id(metric.get(), id);
  return metric;
}

void read(benchmark::State &state, uint64_t samples, uint64_t step_ms, uint64_t span_ms) {
  init_private_nan();
  const store_c store(samples, step_ms, state.range(0) != 0);
  const velmar_db_ranged_fromRaw::ctx_c reader(nullptr, store.shards());
  std::vector<metric_locator_sp> metrics;
  for (uint64_t id = 1; id <= METRICS; id++) metrics.push_back(metric_of(id));
  const uint64_t end_ms = START_MS + (samples * step_ms + span_ms - 1) / span_ms * span_ms;
  uint64_t cells = 0;
  size_t next = 0;
  for (auto _ : state) {
    const auto iter = reader.find_synch({metrics[next++ % METRICS], START_MS, end_ms, span_ms, true, true});
    cells = iter->get_value().m_count;
  }
  state.counters["cells"] = static_cast<double>(cells);
  state.counters["samples/s"] =
      benchmark::Counter(static_cast<double>(state.iterations() * samples), benchmark::Counter::kIsRate);
}

void BM_day_of_minutes(benchmark::State &state) {
  read(state, 1440, 60000, 300000);
}
BENCHMARK(BM_day_of_minutes)->ArgName("fresh")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_100000_samples(benchmark::State &state) {
  read(state, 100000, 5000, 300000);
}
BENCHMARK(BM_100000_samples)->ArgName("fresh")->Arg(0)->Unit(benchmark::kMillisecond);

}  // namespace
