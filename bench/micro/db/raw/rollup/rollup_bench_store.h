#pragma once
// A raw shard of METRICS metrics with one sample a minute for MINUTES minutes, written as they come in life,
// all metrics of a minute together; and passes over it.

#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "db/raw/rollup/ctx.h"
#include "util/concurrency/tolv_timed_mock.h"

namespace rollup_bench {

using namespace db::raw;

constexpr uint64_t DAY = 86400, START_S = 1700006400 / (7 * DAY) * 7 * DAY;
constexpr size_t SET_SIZE = 10000;

inline size_t setting(const char *name, size_t value) {
  const char *text = getenv(name);
  return text ? strtoull(text, nullptr, 10) : value;
}

inline double process_cpu_s() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct discard_closure_t : is_raw_write_closure_t {
  void on_success() override {}
  void on_error(const raw_write_error_c &) override {}
  void on_complete() override {}
};

// Every id is a metric.
class lookup_c : public db::surrogate::lookup_synch_c {
 public:
  void for_each_surrogate(bool (*)(const metric_locator_sp &, void *), void *) override {}
  void for_each_activity(bool (*)(uint64_t, const oil_list_t *, void *), void *) override {}
  std::optional<uint64_t> find(const metric_locator_sp &) override { return {}; }
  metric_locator_sp find_reverse(uint64_t id) override { return make(id); }
  uint64_t get_count_estimate() override { return 0; }
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t>) override {
    return {};
  }
  db::surrogate::batch_find_result_sp batch_find(std::span<const uint64_t> ids) override {
    struct page_t : db::surrogate::batch_find_result_t {
      const std::vector<metric_locator_sp> &get_page_locators() const override { return locators; }
      bool fill_next_page() override { return std::exchange(more, false); }
      std::vector<metric_locator_sp> locators;
      bool more = true;
    };
    const auto page = std::make_shared<page_t>();
    for (const uint64_t id : ids) page->locators.push_back(make(id));
    return page;
  }
  db::surrogate::batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &) override {
    return nullptr;
  }
  std::vector<metric_locator_sp> side_load_all_surrogates() override { return {}; }
  void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &) override {}

 private:
  static metric_locator_sp make(uint64_t id) {
    const uint8_t uuid[16] = {1};
    auto locator = metric_locator_adopt(velmar_metric_locator_create(uuid, nullptr, METRIC_TYPE_NUMERIC));
    velmar_metric_locator_set_surrogate_id(locator.get(), id);
    return locator;
  }
};

class store_c {
 public:
  store_c() : m_path(std::filesystem::temp_directory_path() / "velmar_rollup_bench") {
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
    const timeval now = {static_cast<time_t>(START_S + 7 * DAY), 0};
    static_cast<tolv_timed_mock::clock_c *>(m_timers.get_clock())->set_time(now);
    velmar_db_admin_rocksdb_init_types(&m_types);
    velmar_db_raw_nom::data_db_params_t db_params;
    db_params.manager = &m_manager;
    db_params.type = velmar_db_raw_nom_create_type(&m_types);
    m_dbs = std::make_unique<velmar_db_raw_nom::factory_c>(db_params);
    raw_shard_factory_params_t params;
    params.basedir = m_path;
    params.db_factory = m_dbs.get();
    params.timer_factory = &m_timers;
    m_factory = std::make_unique<raw_shard_factory_c>(params);
    m_samples = fill(setting("METRICS", 10000), setting("MINUTES", 1440));
    // the next shard: what the pass carries over goes there
    m_factory->find_shard_for((START_S + 7 * DAY) * 1000, CREATE_IF_MISSING);
  }
  ~store_c() {
    m_factory->close_all();
    m_factory.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
    std::filesystem::remove_all(m_path);
  }

  size_t get_samples() const { return m_samples; }

  void roll_up(const std::vector<rollup_target_c *> &targets, unsigned threads) {
    rollup_store_t store;
    store.targets = targets;
    store.lookup = std::make_shared<lookup_c>();
    std::vector<std::thread> running;
    std::vector<std::function<void()>> jobs;
    std::atomic<size_t> next{0};
    if (threads > 1) {
      store.family_runner = [&](std::function<void()> job) {
        jobs.push_back(std::move(job));
        if (jobs.size() != 8) return;
        for (unsigned t = 0; t < threads; t++)
          running.emplace_back([&] {
            for (size_t i; (i = next++) < jobs.size();) jobs[i]();
          });
      };
    }
    rollup_pass_t pass;
    pass.store = &store;
    pass.shard = m_factory->find_shard_for(START_S * 1000, MUST_EXIST).shard;
    pass.db = pass.shard->get_db();
    pass.next = m_factory->find_shard_for((START_S + 7 * DAY) * 1000, MUST_EXIST).shard;
    pass.start_s = START_S;
    pass.end_s = START_S + 7 * DAY;
    pass.is_stopping = [] { return false; };
    pass.shard->mark_dirty();
    pass.shard->get_rollup_progress().mark_clean();
    do_rollup(&pass);
    for (std::thread &thread : running) thread.join();
  }

 private:
  size_t fill(size_t metrics, size_t minutes) {
    const auto shard = m_factory->find_shard_for(START_S * 1000, CREATE_IF_MISSING).shard;
    discard_closure_t closure;
    std::vector<nom_sample_t> set;
    for (size_t minute = 0; minute < minutes; minute++)
      for (size_t metric = 1; metric <= metrics; metric++) {
        const double value = 0.37 * static_cast<double>(minute) + static_cast<double>(metric % 17);
        set.push_back(nom_sample_t::of_double(metric, (START_S + minute * 60) * 1000 + metric % 60000, value));
        if (set.size() < SET_SIZE && (minute + 1 < minutes || metric < metrics)) continue;
        shard->write_numeric_asynch(set, &closure);
        set.clear();
      }
    shard->get_db()->flush();
    return metrics * minutes;
  }

  const std::filesystem::path m_path;
  tolv_timed_mock::factory_c m_timers;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::unique_ptr<velmar_db_raw_nom::factory_c> m_dbs;
  std::unique_ptr<raw_shard_factory_c> m_factory;
  size_t m_samples;
};

}  // namespace rollup_bench
