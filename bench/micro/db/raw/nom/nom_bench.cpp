// How fast numeric samples go into one shard: 50,000 series, sets of 10,000 samples, everything that RocksDB
// does in the background included. cpu_us is process CPU per sample.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"

namespace {

using db::raw::nom_sample_t;
using namespace velmar_db_raw_nom;

constexpr uint64_t SERIES = 50000, SET_SIZE = 10000, STEP_MS = 10000;

double process_cpu_s() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct discard_closure_t : db::raw::is_raw_write_closure_t {
  void on_success() override {}
  void on_error(const db::raw::raw_write_error_c &) override {}
  void on_complete() override {}
};

class shard_c {
 public:
  shard_c() : m_path(std::filesystem::temp_directory_path() / "velmar_nom_bench") {
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
    velmar_db_admin_rocksdb_init_types(&m_types);
    data_db_params_t params;
    params.manager = &m_manager;
    params.type = velmar_db_raw_nom_create_type(&m_types);
    m_handle = factory_c(params).open_priv(m_path);
  }
  ~shard_c() {
    m_handle.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
    std::filesystem::remove_all(m_path);
  }
  data_db_c &db() { return m_handle->get_data_db(); }

 private:
  const std::filesystem::path m_path;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::shared_ptr<handle_c> m_handle;
};

// Samples arrive round by round: `run` in a row of one series, then the next series.
class source_c {
 public:
  explicit source_c(uint64_t run) : m_run(run) {}
  void fill(std::vector<nom_sample_t> *set) {
    set->clear();
    while (set->size() < SET_SIZE) {
      for (uint64_t i = 0; i < m_run; ++i) {
        set->push_back(
            nom_sample_t::of_double(m_series + 1, START_MS + (m_round * m_run + i) * STEP_MS,
                                    0.37 * static_cast<double>(m_round) + static_cast<double>(m_series)));
      }
      if (++m_series == SERIES) {
        m_series = 0;
        ++m_round;
      }
    }
  }

 private:
  static constexpr uint64_t START_MS = 1700000000000 / RECORD_SIZE_MS * RECORD_SIZE_MS;
  const uint64_t m_run;
  uint64_t m_series = 0, m_round = 0;
};

void report(benchmark::State &state, double cpu_before) {
  const auto samples = static_cast<double>(state.iterations()) * SET_SIZE;
  state.counters["samples/s"] = benchmark::Counter(samples, benchmark::Counter::kIsRate);
  state.counters["cpu_us"] = (process_cpu_s() - cpu_before) * 1e6 / samples;
}

void BM_write_compact(benchmark::State &state) {
  shard_c shard;
  source_c source(static_cast<uint64_t>(state.range(0)));
  std::vector<nom_sample_t> set;
  discard_closure_t closure;
  const double cpu_before = process_cpu_s();
  for (auto _ : state) {
    source.fill(&set);
    shard.db().write_numeric_asynch(set, &closure);
  }
  shard.db().flush();
  report(state, cpu_before);
}
BENCHMARK(BM_write_compact)->Arg(1)->Arg(10)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_write_entries(benchmark::State &state) {
  shard_c shard;
  source_c source(static_cast<uint64_t>(state.range(0)));
  std::vector<nom_sample_t> set;
  std::vector<db::raw::raw_key_c> keys(SET_SIZE);
  std::vector<db::raw::raw_entry_c> entries(SET_SIZE);
  discard_closure_t closure;
  const double cpu_before = process_cpu_s();
  for (auto _ : state) {
    source.fill(&set);
    for (size_t i = 0; i < SET_SIZE; ++i) {
      db::surrogate::key_c key;
      key.set_timestamp(std::chrono::milliseconds(set[i].ts_ms));
      keys[i].set_data(set[i].surrogate_id, key);
      keys[i].get_orig_key().set_timestamp(std::chrono::milliseconds(set[i].ts_ms));
      db::raw::raw_value_c value;
      dorn_record_m_value_t data{VELMAR_METRIC_DOUBLE, false, {}};
      memcpy(&data.storage, &set[i].bits, sizeof set[i].bits);
      value.set_data(std::move(data), 0);
      entries[i].set_data(&keys[i], std::move(value));
    }
    shard.db().write_set_asynch(entries.data(), entries.size(), &closure);
  }
  shard.db().flush();
  report(state, cpu_before);
}
BENCHMARK(BM_write_entries)->Arg(1)->Iterations(300)->UseRealTime()->Unit(benchmark::kMillisecond);

// Reading samples in order through the asynch interface, out of table files.
void BM_read(benchmark::State &state) {
  shard_c shard;
  source_c source(10);
  std::vector<nom_sample_t> set;
  discard_closure_t closure;
  for (int i = 0; i < 500; ++i) {
    source.fill(&set);
    shard.db().write_numeric_asynch(set, &closure);
  }
  shard.db().flush();
  uint64_t id = 0;
  static uint64_t samples;
  samples = 0;
  for (auto _ : state) {
    db::raw::raw_key_c key;
    key.set_data(id++ % SERIES + 1, {});
    shard.db().find_asynch(
        key, db::raw::SEEK_NEXT_ON_MISS,
        [](db::raw::raw_iter_manager_asynch_c *manager, db::raw::raw_iter_reader_asynch_c *reader, void *) {
          if (!reader->is_valid()) return manager->close_asynch(reader);
          ++samples;
          manager->next_asynch(reader);
        },
        nullptr);
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_read)->UseRealTime()->Unit(benchmark::kMicrosecond);

// One record of 360 samples and as many operands.
void BM_full_merge(benchmark::State &state) {
  std::vector<std::string> operands;
  for (uint32_t i = 0; i < 360; ++i) {
    std::string operand(18, '\0');
    const rocks_entry_header_t header{0, NOM_TYPE_DOUBLE, 1};
    const double_measurement_t measurement{make_bits(i * 10000, 0, false), 0.5 * i};
    memcpy(operand.data(), &header, sizeof header);
    memcpy(operand.data() + sizeof header, &measurement, sizeof measurement);
    operand[0] = static_cast<char>(record_checksum(operand.data(), operand.size()));
    operands.push_back(operand);
  }
  if (state.range(0) != 0) std::swap(operands.front(), operands.back());
  std::vector<const char *> data;
  std::vector<size_t> lengths;
  for (const std::string &operand : operands) {
    data.push_back(operand.data());
    lengths.push_back(operand.size());
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(merge_op_full(conflict_resolver_e::last_abs_max, std::nullopt,
                                           {data.data(), lengths.data(), static_cast<int>(data.size())}));
  }
  state.SetItemsProcessed(state.iterations() * 360);
}
BENCHMARK(BM_full_merge)->ArgName("unsorted")->Arg(0)->Arg(1);

}  // namespace
