#pragma once
// The state of the store of rollups that its reading and writing share. For this room alone.

#include <atomic>
#include <memory>
#include <string>

#include "db/ranged/nntbs/nntbs.h"
#include "db/ranged/nntbs/rollup_shard_mgr.h"
#include "util/concurrency/periodic_job.h"

namespace db::ranged::nntbs {

struct storage_data_t {
  bool inited = false;
  rollup_config_set_t *rollup_configs = nullptr;
  std::string path;
  std::unique_ptr<rollup_shard_mgr_c> shard_factory;
  std::shared_ptr<surrogate::lookup_synch_c> surrogate_lookup;
  std::shared_ptr<surrogate::writer_asynch_c> surrogate_writer;
  std::unique_ptr<periodic_job_c> retention, report;
  std::atomic<uint64_t> get_calls{0}, put_calls{0};  // cells
};

storage_data_t &storage();

// The id in the locator or that of the database; 0: unknown.
uint64_t find_surrogate(const metric_locator_sp &metric_locator);
// The same, made when it is missing; 0, logged, when that fails.
uint64_t find_or_create_surrogate(const metric_locator_sp &metric_locator, uint64_t offset_ms);

}  // namespace db::ranged::nntbs
