#include "be/raw/raw_mgr.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "be/hist/hist_shard_mgr.h"
#include "be/raw/numeric_rollup_target.h"
#include "be/raw/raw_put_write.h"
#include "db/ranged/nntbs/nntbs.h"
#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/raw_store_config.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "db/raw/rollup/ctx.h"
#include "global/velmar_features.h"
#include "global/velmar_global_db.h"
#include "global/velmar_global_state.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "platform/tolvmetrics/stats.h"
#include "util/concurrency/periodic_job.h"
#include "util/concurrency/tolv_timed_krel.h"
#include "util/io/fs_avail.h"
#include "util/velmar_stats.h"

namespace {

constexpr uint64_t SIZE_PERIOD_S = 60, REOPEN_PERIOD_S = 60;
constexpr int FAMILY_NICENESS = 5;

struct store_t {
  db::raw::raw_store_config_t config;
  std::unique_ptr<velmar_db_raw_nom::factory_c> db_factory;
  std::unique_ptr<db::raw::raw_shard_factory_c> shards;
  std::unique_ptr<db::raw::raw_writer_asynch_shim_c> writer;
  db::raw::rollup_suppression_c suppression;
  std::unique_ptr<db::raw::ctx_c> ctx;
};

struct queues_t {
  const char *writer, *families, *rollup, *deletes;
};

// Never destroyed: an exit that is no orderly stop finds jobs at work on them.
store_t &numeric_store = *new store_t, &histogram_store = *new store_t;
auto &numeric_targets = *new std::vector<std::unique_ptr<be::raw::numeric_rollup_target_c>>;
auto &size_job = *new std::unique_ptr<periodic_job_c>, &reopen_job = *new std::unique_ptr<periodic_job_c>;

krelev_jobq_t *retrieve(const char *name) {
  krelev_jobq_t *jobq = krelev_jobq_retrieve(name);
  krel_assert(jobq);
  return jobq;
}

db::raw::runner_f run_on(const char *name) {
  return
      [jobq = retrieve(name)](std::function<void()> function) { krelev_jobq_run(jobq, std::move(function)); };
}

// The queue's threads do nothing else, and yield to those that take and give samples.
db::raw::runner_f run_families_on(const char *name) {
  return [jobq = retrieve(name)](std::function<void()> job) {
    krelev_jobq_run(jobq, [job = std::move(job)] {
      setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), FAMILY_NICENESS);
      job();
    });
  };
}

// False: the store is not configured. Its shards are still to be opened.
bool make_store(store_t *store, velmar_db_raw_nom::nom_merge_type_e kind, const char *element,
                const char *node_id) {
  store->config = db::raw::read_raw_store_config(element, node_id);
  if (!store->config.configured) return false;
  velmar_db_raw_nom::data_db_params_t params;
  params.datatype = kind;
  params.conflict_resolver = velmar_db_raw_nom::conflict_resolver_from_conf(kind);
  params.manager = velmar_global_get_rocksdb_manager();
  params.type = velmar_global_get_rocksdb_nomdb_type();
  store->db_factory = std::make_unique<velmar_db_raw_nom::factory_c>(params);
  store->config.factory.db_factory = store->db_factory.get();
  store->config.factory.timer_factory = &tolv_timed_krel::factory_c::get_instance();
  store->shards = std::make_unique<db::raw::raw_shard_factory_c>(store->config.factory);
  return true;
}

// Puts the store under its manager, which opens the shards.
void start_store(store_t *store, const queues_t &queues, db::raw::rollup_store_t rollup) {
  if (!store->config.suppress_rollup_filter.empty())
    store->suppression =
        db::raw::rollup_suppression_c(store->config.suppress_rollup_filter,
                                      rollup.kind == db::raw::NUMERIC ? "raw database" : "histogram ingest");
  db::raw::ctx_params_t params;
  params.factory = store->shards.get();
  params.timer_factory = store->config.factory.timer_factory;
  params.rollup_runner = run_on(queues.rollup);
  params.delete_runner = run_on(queues.deletes);
  params.cleanup_runner = run_on("clean_rollup_suppressed_metrics");
  params.is_reconstituting = [] { return get_reconstitute_mode() != 0; };
  params.store = std::move(rollup);
  params.store.lookup = velmar_global_surrogate_get_lookup_synch();
  params.store.suppression = &store->suppression;
  params.store.family_runner = run_families_on(queues.families);
  params.store.stats = db::raw::rollup_stats(params.store.kind);
  store->ctx = std::make_unique<db::raw::ctx_c>(std::move(params));
  store->ctx->start();
  store->writer =
      std::make_unique<db::raw::raw_writer_asynch_shim_c>(store->shards.get(), retrieve(queues.writer));
}

void open_numeric_store(const char *node_id, const rollup_config_set_t &rollups) {
  if (!make_store(&numeric_store, velmar_db_raw_nom::numeric, "raw_database", node_id)) return;
  db::raw::rollup_store_t rollup;
  rollup.kind = db::raw::NUMERIC;
  for (const rollup_config_t *config : rollups.configs) {
    numeric_targets.push_back(std::make_unique<be::raw::numeric_rollup_target_c>(config->period));
    rollup.targets.push_back(numeric_targets.back().get());
  }
  rollup.oldest_retention_s = nntbs_get_max_oldest_retention_time_s;
  start_store(&numeric_store, {"raw_writer", "rollup_raw", "timeshard_rollup", "timeshard_delete"},
              std::move(rollup));
}

void open_histogram_store(const char *node_id) {
  if (!make_store(&histogram_store, velmar_db_raw_nom::histogram, "histogram_ingest", node_id)) return;
  hist_shard_mgr_init(node_id, histogram_store.config.factory);
  if (histogram_store.config.suppress_rollup_filter.empty())
    histogram_store.config.suppress_rollup_filter = numeric_store.config.suppress_rollup_filter;
  db::raw::rollup_store_t rollup;
  rollup.kind = db::raw::HISTOGRAM;
  rollup.targets = hist_shard_mgr_get_targets();
  rollup.oldest_retention_s = hist_shard_mgr_get_max_oldest_retention_time_s;
  rollup.forwarding_path = rest_hist_shard_mgr_get_path();
  rollup.max_cumul_arrival_dist_ms = std::min(get_max_cumul_arrival_dist_s(), UINT64_MAX / 1000) * 1000;
  start_store(&histogram_store,
              {"hist_shard_writer", "rollup_hist_shard", "hist_shard_rollup", "hist_shard_delete"},
              std::move(rollup));
}

// Figures of the file system that holds the raw samples, asked for now and then.
void raw_mgr_kickoff_asynch_sizing() {
  static std::atomic<uint64_t> total{0}, available{0};
  static std::atomic<double> ratio{1.0};
  const auto size = [] {
    uint64_t fsid = 0, now_total = 0, now_available = 0;
    double now_ratio = 1.0;
    if (fs_get_avail(numeric_store.config.factory.basedir, &fsid, &now_total, &now_available, &now_ratio) < 0)
      return;
    total = now_total;
    available = now_available;
    ratio = now_ratio;
  };
  stats_invoke(velmar_stats_get_handle("db.raw.fs.total", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(total.load()); });
  stats_invoke(velmar_stats_get_handle("db.raw.fs.available", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(available.load()); });
  stats_invoke(velmar_stats_get_handle("db.raw.fs.compress_ratio", STATS_TYPE_DOUBLE),
               [] { return ratio.load(); });
  size();
  size_job = std::make_unique<periodic_job_c>(numeric_store.config.factory.timer_factory,
                                              run_on("timeshard_delete"), SIZE_PERIOD_S, size);
}

}  // namespace

void rest_raw_mgr_init(const char *node_id, const rollup_config_set_t &rollups) {
  be::raw::raw_mgr_t &mgr = be::raw::raw_mgr();
  open_numeric_store(node_id, rollups);
  velmar_register_feature("raw:store", "1");
  if (numeric_store.shards) raw_mgr_kickoff_asynch_sizing();
  open_histogram_store(node_id);
  reopen_job = std::make_unique<periodic_job_c>(&tolv_timed_krel::factory_c::get_instance(),
                                                run_on("shard_cache"), REOPEN_PERIOD_S, [] {
                                                  for (store_t *store : {&numeric_store, &histogram_store})
                                                    if (store->shards) store->shards->reopen_failed();
                                                });
  mgr.surrogate_writer = velmar_global_surrogate_get_writer_asynch();
  mgr.numeric_writer = numeric_store.writer.get();
  mgr.histogram_writer = histogram_store.writer.get();
  mgr.parse_jobq = krelev_jobq_retrieve("velmar_raw_put_parse");
  mgr.ingest_jobq = krelev_jobq_retrieve("raw_ingest");
  mgr.hist_ingest_jobq = krelev_jobq_retrieve("hist_shard_ingest");
  krel_assert(mgr.surrogate_writer && mgr.parse_jobq && mgr.ingest_jobq && mgr.hist_ingest_jobq);
  stats_invoke(velmar_stats_get_handle("be.raw.known_metrics", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(be::raw::raw_mgr().known.size()); });
  stats_invoke(velmar_stats_get_handle("be.raw.unsent", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(be::raw::raw_mgr_unsent_samples()); });
}

void rest_raw_mgr_close() {
  size_job.reset();
  reopen_job.reset();
  for (store_t *store : {&numeric_store, &histogram_store})
    if (store->ctx) store->ctx->stop();
  hist_shard_mgr_close();
  for (store_t *store : {&numeric_store, &histogram_store})
    if (store->shards) store->shards->close_all();
}

db::raw::raw_shard_factory_c *rest_raw_mgr_get_numeric_factory() {
  return numeric_store.shards.get();
}
db::raw::raw_shard_factory_c *rest_raw_mgr_get_histogram_factory() {
  return histogram_store.shards.get();
}
db::raw::ctx_c *rest_raw_mgr_get_ctx(bool histogram) {
  return (histogram ? histogram_store : numeric_store).ctx.get();
}
unsigned rest_raw_mgr_get_streaming_limit(bool histogram) {
  return (histogram ? histogram_store : numeric_store).config.streaming_limit;
}
