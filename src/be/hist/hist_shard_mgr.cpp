#include "be/hist/hist_shard_mgr.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "be/hist/hist_rollup_target.h"
#include "db/raw/nom/factory.h"
#include "db/raw/raw_shard_factory.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "global/velmar_features.h"
#include "global/velmar_global_db.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/periodic_job.h"
#include "util/concurrency/tolv_timed_krel.h"
#include "util/io/file_helpers.h"

namespace {

constexpr uint64_t RETENTION_PERIOD_S = 60;
constexpr uint64_t DEFAULT_ARRIVAL_DIST_S = 600;
constexpr uint64_t LONG_OVERDUE_S = 604801;

struct store_t {
  hist_rollup_config_t config;
  std::unique_ptr<db::raw::raw_shard_factory_c> shards;
  std::unique_ptr<db::raw::raw_writer_asynch_shim_c> writer;
  std::unique_ptr<hist_rollup_target_c> target;
};

struct mgr_t {
  hist_config_t config;
  uint64_t max_cumul_arrival_dist_s = DEFAULT_ARRIVAL_DIST_S;
  std::unique_ptr<velmar_db_raw_nom::factory_c> db_factory;
  std::vector<store_t> stores;  // one for each rollup, in the order of the configuration
  std::mutex retention_mutex;   // one pass at a time
  std::unique_ptr<periodic_job_c> retention;
};
mgr_t &mgr = *new mgr_t;  // never destroyed: an exit that is no orderly stop finds jobs at work on it

uint64_t now_s() {
  return static_cast<uint64_t>(tolv_timed_krel::factory_c::get_instance().get_clock()->get_time_s());
}

std::unique_ptr<velmar_db_raw_nom::factory_c> make_db_factory() {
  velmar_db_raw_nom::data_db_params_t params;
  params.datatype = velmar_db_raw_nom::histogram;
  params.conflict_resolver = velmar_db_raw_nom::conflict_resolver_e::newest;  // a repeated rollup is right
  params.manager = velmar_global_get_rocksdb_manager();
  params.type = velmar_global_get_rocksdb_nomdb_type();
  return std::make_unique<velmar_db_raw_nom::factory_c>(params);
}

store_t open_store(const hist_rollup_config_t &config, const db::raw::raw_shard_factory_params_t &raw) {
  db::raw::raw_shard_factory_params_t params;
  params.basedir = fmt::format("{}/{}", mgr.config.path, config.period);
  if (const auto code = util::io::mkdir_for_file(params.basedir + "/dummy"))
    krel_fatal("Directory was not created: %s, error: %d - %s\n", params.basedir.c_str(), code.value(),
               code.message().c_str());
  params.description = fmt::format("histogram rollup {}", config.period);
  params.granularity_s = config.granularity_s;
  params.max_clock_skew_s = raw.max_clock_skew_s + raw.granularity_s;  // what raw shards may hold
  params.rolls_up = false;
  params.db_factory = mgr.db_factory.get();
  params.timer_factory = raw.timer_factory;
  store_t store{config, std::make_unique<db::raw::raw_shard_factory_c>(params), nullptr, nullptr};
  store.shards->scan();
  krelev_jobq_t *jobq = krelev_jobq_retrieve("hist_rollup_shard_writer");
  krel_assert(jobq);
  store.writer = std::make_unique<db::raw::raw_writer_asynch_shim_c>(store.shards.get(), jobq);
  store.target = std::make_unique<hist_rollup_target_c>(config, store.writer.get());
  return store;
}

// Whole shards whose end lies before what the period keeps.
void perform_retention(const store_t &store, uint64_t cutoff_s) {
  std::vector<db::raw::shard_sp> past;
  store.shards->enumerate_shards([&](const db::raw::shard_sp &shard) {
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    if (end_s < cutoff_s) past.push_back(shard);
    return true;
  });
  for (db::raw::shard_sp &shard : past) {
    if (store.shards->delete_shard(shard)) continue;
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    if (cutoff_s - end_s >= LONG_OVERDUE_S)
      krel_ex_log(krel_error,
                  "{}: shard {} is past its retention period, but has not been able to be deleted for {} "
                  "seconds.\n",
                  "hist_mgr_perform_rollup_retention_sharded", shard->get_dir_name(), cutoff_s - end_s);
  }
}

// On velmar_hist_retention.
void hist_mgr_perform_rollup_retention_sharded() {
  const std::unique_lock lock(mgr.retention_mutex, std::try_to_lock);
  if (!lock.owns_lock()) return;
  for (const store_t &store : mgr.stores)
    if (store.config.retention_s != 0 && store.config.retention_s < now_s())
      perform_retention(store, now_s() - store.config.retention_s);
}

}  // namespace

void hist_shard_mgr_init(const char *node_id, const db::raw::raw_shard_factory_params_t &raw) {
  mgr.config = hist_mgr_read_config(node_id, raw.granularity_s);
  uint64_t distance_s = 0;
  if (krel_conf_get_uint64(KREL_CONF_ROOT, "//velmar/histogram_ingest/@max_cumul_arrival_dist", &distance_s) &&
      distance_s != 0)
    mgr.max_cumul_arrival_dist_s = distance_s;
  krel_log(krel_notice, "Setting up histogram rollup shard databases for %zu rollups\n",
           mgr.config.rollups.size());
  mgr.db_factory = make_db_factory();
  for (const hist_rollup_config_t &config : mgr.config.rollups) mgr.stores.push_back(open_store(config, raw));
  krelev_jobq_t *jobq = krelev_jobq_retrieve("velmar_hist_retention");
  krel_assert(jobq);
  mgr.retention = std::make_unique<periodic_job_c>(
      raw.timer_factory, [jobq](std::function<void()> job) { krelev_jobq_run(jobq, std::move(job)); },
      RETENTION_PERIOD_S, hist_mgr_perform_rollup_retention_sharded);
  velmar_register_feature("histogram:store", "1");
  velmar_register_feature("histogram:dynamic_rollups", "1");
}

void hist_shard_mgr_close() {
  mgr.retention.reset();
  for (const store_t &store : mgr.stores) store.shards->close_all();
}

const std::vector<hist_rollup_config_t> &get_hist_rollup_configs() {
  return mgr.config.rollups;
}

const hist_rollup_config_t *hist_mgr_rollup_config(unsigned period, unsigned *collapse) {
  if (period == 0) return nullptr;
  const auto &rollups = mgr.config.rollups;
  for (auto rollup = rollups.rbegin(); rollup != rollups.rend(); ++rollup) {
    if (collapse ? period % rollup->period != 0 : period != rollup->period) continue;
    if (collapse) *collapse = period / rollup->period;
    return &*rollup;
  }
  return nullptr;
}

db::raw::raw_shard_factory_c *rest_hist_shard_mgr_get_factory(int index) {
  const auto at = static_cast<size_t>(index);
  return at < mgr.stores.size() ? mgr.stores[at].shards.get() : nullptr;
}

const std::string &rest_hist_shard_mgr_get_path() {
  return mgr.config.path;
}

std::vector<db::raw::rollup_target_c *> hist_shard_mgr_get_targets() {
  std::vector<db::raw::rollup_target_c *> targets;
  for (const store_t &store : mgr.stores) targets.push_back(store.target.get());
  return targets;
}

uint64_t hist_shard_mgr_get_max_oldest_retention_time_s() {
  uint64_t longest_s = 0;
  for (const hist_rollup_config_t &rollup : mgr.config.rollups) {
    if (rollup.retention_s == 0) return 0;
    longest_s = std::max(longest_s, rollup.retention_s);
  }
  return now_s() > longest_s ? now_s() - longest_s : 0;
}

uint64_t get_max_cumul_arrival_dist_s() {
  return mgr.max_cumul_arrival_dist_s;
}
