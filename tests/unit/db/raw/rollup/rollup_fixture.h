#pragma once
// A raw store in a directory of its own with its manager, and targets that remember what they were given.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <thread>

#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/rollup/ctx.h"
#include "db/raw/rollup/rollup_hooks.h"
#include "support/log_capture.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"
#include "unit/db/raw/fake_store.h"
#include "util/concurrency/tolv_timed_mock.h"
#include "util/histogram_entries.h"

namespace db::raw {

constexpr uint64_t HOUR = 3600, DAY = 86400, NOW = 1700006400;  // a midnight
static_assert(NOW % DAY == 0);

// Knows the metrics it was given.
class fake_lookup_c : public surrogate::lookup_synch_c {
 public:
  void add(uint64_t id, velmar_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC,
           const std::string &name = {}, int32_t account = 1) {
    metrics[id] =
        make_stored_metric(id, name.empty() ? "metric_" + std::to_string(id) : name, 1, account, type);
  }
  void for_each_surrogate(bool (*)(const metric_locator_sp &, void *), void *) override {}
  void for_each_activity(bool (*)(uint64_t, const oil_list_t *, void *), void *) override {}
  std::optional<uint64_t> find(const metric_locator_sp &locator) override {
    return velmar_metric_locator_get_surrogate_id(locator.get());
  }
  metric_locator_sp find_reverse(uint64_t id) override {
    const auto at = metrics.find(id);
    return at == metrics.end() ? nullptr : at->second;
  }
  uint64_t get_count_estimate() override { return metrics.size(); }
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t> ids) override {
    for (const uint64_t id : ids) metrics.erase(id);
    return {};
  }
  surrogate::batch_find_result_sp batch_find(std::span<const uint64_t> ids) override {
    struct page_t : surrogate::batch_find_result_t {
      const std::vector<metric_locator_sp> &get_page_locators() const override { return locators; }
      bool fill_next_page() override { return std::exchange(more, false); }
      std::vector<metric_locator_sp> locators;
      bool more = true;
    };
    const auto page = std::make_shared<page_t>();
    for (const uint64_t id : ids)
      if (const auto locator = find_reverse(id)) page->locators.push_back(locator);
    return page;
  }
  surrogate::batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &) override {
    return nullptr;
  }
  std::vector<metric_locator_sp> side_load_all_surrogates() override { return {}; }
  void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &function) override {
    for (const auto &[id, locator] : metrics)
      if (!function(locator)) return;
  }

  std::map<uint64_t, metric_locator_sp> metrics;
};

struct slot_t {
  uint64_t id, ts_ms;
  auto operator<=>(const slot_t &) const = default;
};

// Keeps cells as text, so that they can be compared and shown.
class fake_target_c : public rollup_target_c {
 public:
  explicit fake_target_c(unsigned period_s) : m_period_s(period_s) {}
  unsigned get_period_s() const override { return m_period_s; }
  bool write_numeric(const metric_locator_sp &locator, uint64_t start_ms,
                     std::span<const nnt_multitype> cells) override {
    const std::lock_guard lock(m_mutex);
    if (fails_at_id == id_of(locator)) return false;
    for (size_t i = 0; i < cells.size(); i++)
      if (cells[i].type != NNT_TYPE_ABSENT)
        numbers[{id_of(locator), start_ms + i * m_period_s * 1000}] = cells[i];
    calls++;
    return true;
  }
  bool write_histograms(const metric_locator_sp &locator, std::span<const histogram_cell_t> cells) override {
    const std::lock_guard lock(m_mutex);
    for (const histogram_cell_t &cell : cells)
      histograms[{id_of(locator), cell.ts_ms}] = text_of(cell.histogram);
    calls++;
    return true;
  }
  static uint64_t id_of(const metric_locator_sp &locator) {
    return velmar_metric_locator_get_surrogate_id(locator.get());
  }
  // "bin:count" of the bins that count.
  static std::string text_of(const histogram_t *histogram) {
    std::string text;
    for (int i = 0; i < hist_bucket_count(histogram); i++) {
      hist_bucket_t bucket;
      uint64_t count;
      char name[HIST_BUCKET_TEXT_SIZE];
      hist_bucket_idx_bucket(histogram, i, &bucket, &count);
      hist_bucket_to_string(bucket, name, sizeof name);
      if (count) text += fmt::format("{}{}:{}", text.empty() ? "" : " ", name, count);
    }
    return text;
  }

  std::map<slot_t, nnt_multitype> numbers;
  std::map<slot_t, std::string> histograms;
  uint64_t fails_at_id = 0;
  size_t calls = 0;

 private:
  const unsigned m_period_s;
  std::mutex m_mutex;
};

inline bool same_cell(const nnt_multitype &a, const nnt_multitype &b) {
  const auto same = [](float x, float y) { return memcmp(&x, &y, sizeof x) == 0; };
  return a.type == b.type && a.count == b.count && a.stddev_present == b.stddev_present &&
         same(a.stddev, b.stddev) && a.value.v_uint64 == b.value.v_uint64 && same(a.derivative, b.derivative) &&
         same(a.derivative_stddev, b.derivative_stddev) && same(a.counter, b.counter) &&
         same(a.counter_stddev, b.counter_stddev);
}

// Functions that a test runs when it wants them to be run.
struct manual_runner_t {
  runner_f runner() {
    return [this](std::function<void()> function) { waiting.push_back(std::move(function)); };
  }
  size_t run_all() {
    size_t count = 0;
    for (; !waiting.empty(); count++) {
      const auto function = std::move(waiting.front());
      waiting.erase(waiting.begin());
      function();
    }
    return count;
  }
  std::vector<std::function<void()>> waiting;
};

struct store_options_t {
  nomdb_type_e kind = NUMERIC;
  std::string suppress = {};
  uint64_t oldest_retention_s = 0;
  uint64_t granularity_s = DAY;
  bool family_threads = false;  // each family's job has a thread of its own
};

// One store on a directory, from its opening to its close.
class store_c {
 public:
  store_c(const std::string &dir, fake_lookup_c *lookup, std::vector<rollup_target_c *> targets,
          const store_options_t &options = {})
      : m_suppression(options.suppress.empty() ? rollup_suppression_c()
                                               : rollup_suppression_c(options.suppress, "test")) {
    set_now(NOW);
    velmar_db_admin_rocksdb_init_types(&m_types);
    velmar_db_raw_nom::data_db_params_t db_params;
    db_params.datatype = options.kind == NUMERIC ? velmar_db_raw_nom::numeric : velmar_db_raw_nom::histogram;
    db_params.manager = &m_manager;
    db_params.type = velmar_db_raw_nom_create_type(&m_types);
    m_dbs = std::make_unique<velmar_db_raw_nom::factory_c>(db_params);
    raw_shard_factory_params_t params;
    params.basedir = dir;
    params.description = "test";
    params.granularity_s = options.granularity_s;
    params.min_delete_age_s = 10 * DAY;
    params.db_factory = m_dbs.get();
    params.timer_factory = &timers;
    factory = std::make_unique<raw_shard_factory_c>(params);
    ctx_params_t ctx_params;
    ctx_params.factory = factory.get();
    ctx_params.timer_factory = &timers;
    ctx_params.is_reconstituting = [this] { return reconstituting; };
    ctx_params.get_delete_deferral = [this] { return deferral; };
    ctx_params.rollup_runner = steps.runner();
    ctx_params.store.kind = options.kind;
    ctx_params.store.targets = std::move(targets);
    ctx_params.store.lookup = std::shared_ptr<surrogate::lookup_synch_c>(lookup, [](auto *) {});
    ctx_params.store.suppression = &m_suppression;
    ctx_params.store.oldest_retention_s = [oldest = options.oldest_retention_s] { return oldest; };
    if (options.kind == HISTOGRAM) ctx_params.store.forwarding_path = dir;
    if (options.family_threads)
      ctx_params.store.family_runner = [this](std::function<void()> job) {
        m_threads.emplace_back(std::move(job));
      };
    ctx = std::make_unique<ctx_c>(std::move(ctx_params));
    ctx->start();
  }
  ~store_c() {
    ctx->stop();
    for (std::thread &thread : m_threads) thread.join();
    factory->close_all();
    ctx.reset();
    factory.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
  }

  void set_now(uint64_t now_s) {
    static_cast<tolv_timed_mock::runner_c *>(timers.get_default_runner())
        ->run_until({static_cast<time_t>(now_s), 0});
  }
  std::shared_ptr<raw_shard_c> shard(uint64_t at_s, open_type_e open_type = CREATE_IF_MISSING) {
    return std::dynamic_pointer_cast<raw_shard_c>(factory->find_shard_for(at_s * 1000, open_type).shard);
  }
  void write(const std::vector<nom_sample_t> &samples) {
    std::map<uint64_t, std::vector<nom_sample_t>> by_shard;
    for (const nom_sample_t &sample : samples)
      by_shard[factory->find_shard_for(sample.ts_ms, CREATE_IF_MISSING).start_s].push_back(sample);
    for (const auto &[start_s, part] : by_shard) {
      counting_closure_t closure;
      shard(start_s)->write_numeric_asynch(part, &closure);
      ASSERT_EQ(closure.successes, 1);
    }
  }
  void write_histogram(const metric_locator_sp &locator, uint64_t ts_ms, std::initializer_list<double> values,
                       bool cumulative) {
    histogram_entries_t histogram;
    histogram.materialized_histogram.reset(hist_alloc());
    for (const double value : values) hist_insert(histogram.materialized_histogram.get(), value, 1);
    surrogate::key_c key;
    key.set_data(locator, std::chrono::milliseconds(ts_ms));
    raw_key_c raw_key;
    raw_key.set_data(velmar_metric_locator_get_surrogate_id(locator.get()), std::move(key));
    dorn_record_m_value_t data = {
        cumulative ? VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY : VELMAR_METRIC_HISTOGRAM_ENTRY, false, {}};
    data.storage.v_histogram = &histogram;
    raw_value_c value;
    value.set_data_non_owner(data, 0);
    raw_entry_c entry;
    entry.set_data(&raw_key, std::move(value));
    counting_closure_t closure;
    asynch_entry_batch_write(factory.get(), &entry, 1, &closure);
    ASSERT_EQ(closure.successes, 1);
  }
  velmar_db_raw_nom::data_db_c &db(uint64_t at_s) {
    return std::dynamic_pointer_cast<velmar_db_raw_nom::handle_c>(shard(at_s)->get_db())->get_data_db();
  }
  // A forced pass over the shard of that second, to its end.
  void roll_up(uint64_t at_s) {
    ASSERT_EQ(ctx->force_rollup(at_s), force_rollup_e::submitted);
    ASSERT_EQ(steps.run_all(), 1U);
  }

  tolv_timed_mock::factory_c timers;
  manual_runner_t steps;
  std::unique_ptr<raw_shard_factory_c> factory;
  std::unique_ptr<ctx_c> ctx;
  bool reconstituting = false;
  const char *deferral = nullptr;

 private:
  std::vector<std::thread> m_threads;
  const rollup_suppression_c m_suppression;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::unique_ptr<velmar_db_raw_nom::factory_c> m_dbs;
};

}  // namespace db::raw
