#pragma once
// What the configuration says of the shards of rollups.

#include <cstdint>
#include <string>
#include <vector>

#include "db/ranged/nntbs/rollup_config.h"
#include "db/ranged/nntbs/shard/rollup_shard_provider.h"
#include "platform/krel/base/krel_clock.h"

namespace db::ranged::nntbs {

struct rollup_period_params_t {
  int32_t period = 0;                      // seconds
  uint64_t length_seconds = 0;             // of a new shard; whole blocks
  uint64_t retention_length_seconds = 0;   // whole blocks; 0: keep for ever
  uint64_t initial_map_size = 1ULL << 33;  // bytes
  rollup_config_t *rollup_config = nullptr;
};

struct rollup_shard_mgr_params_t {
  std::string root_path;
  std::vector<rollup_period_params_t> periods;
  uint64_t minimum_shard_floor = 0;  // seconds; no shard is made below it
  rollup_storage_e storage = rollup_storage_e::lmdb;
  uint32_t lmdb_flags = rollup_lmdb_default_flags();
  const clock_c *clock = &krel_system_clock();
};

// Reads //nntbs and //retention/nntbs. What cannot be read ends the process.
rollup_shard_mgr_params_t read_rollup_shard_mgr_params(const std::string &root_path,
                                                       const rollup_config_set_t &configs);

}  // namespace db::ranged::nntbs
