#include "be/raw/raw_mgr.h"

#include <memory>

#include "be/raw/raw_put_write.h"
#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/raw_store_config.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "global/velmar_features.h"
#include "global/velmar_global_db.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "platform/tolvmetrics/stats.h"
#include "util/concurrency/tolv_timed_krel.h"
#include "util/velmar_stats.h"

namespace {

struct store_t {
  db::raw::raw_store_config_t config;
  std::unique_ptr<velmar_db_raw_nom::factory_c> db_factory;
  std::unique_ptr<db::raw::raw_shard_factory_c> shards;
  std::unique_ptr<db::raw::raw_writer_asynch_shim_c> writer;
};

store_t numeric_store, histogram_store;

void open_store(store_t *store, velmar_db_raw_nom::nom_merge_type_e kind, const char *element,
                const char *writer_jobq, const char *node_id) {
  store->config = db::raw::read_raw_store_config(element, node_id);
  if (!store->config.configured) return;
  velmar_db_raw_nom::data_db_params_t params;
  params.datatype = kind;
  params.conflict_resolver = velmar_db_raw_nom::conflict_resolver_from_conf(kind);
  params.manager = velmar_global_get_rocksdb_manager();
  params.type = velmar_global_get_rocksdb_nomdb_type();
  store->db_factory = std::make_unique<velmar_db_raw_nom::factory_c>(params);
  store->config.factory.db_factory = store->db_factory.get();
  store->config.factory.timer_factory = &tolv_timed_krel::factory_c::get_instance();
  store->shards = std::make_unique<db::raw::raw_shard_factory_c>(store->config.factory);
  store->shards->scan();
  krelev_jobq_t *jobq = krelev_jobq_retrieve(writer_jobq);
  krel_assert(jobq);
  store->writer = std::make_unique<db::raw::raw_writer_asynch_shim_c>(store->shards.get(), jobq);
}

}  // namespace

void rest_raw_mgr_init(const char *node_id) {
  be::raw::raw_mgr_t &mgr = be::raw::raw_mgr();
  open_store(&numeric_store, velmar_db_raw_nom::numeric, "raw_database", "raw_writer", node_id);
  velmar_register_feature("raw:store", "1");
  open_store(&histogram_store, velmar_db_raw_nom::histogram, "histogram_ingest", "hist_shard_writer", node_id);
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
  for (store_t *store : {&numeric_store, &histogram_store})
    if (store->shards) store->shards->close_all();
}

db::raw::raw_shard_factory_c *rest_raw_mgr_get_numeric_factory() {
  return numeric_store.shards.get();
}
db::raw::raw_shard_factory_c *rest_raw_mgr_get_histogram_factory() {
  return histogram_store.shards.get();
}
unsigned rest_raw_mgr_get_streaming_limit(bool histogram) {
  return (histogram ? histogram_store : numeric_store).config.streaming_limit;
}
