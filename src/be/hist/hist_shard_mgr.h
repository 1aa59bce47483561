#pragma once
// The stores of histogram rollups: for each configured period raw shards of histograms, one sample a slot,
// which the rollup of the raw histogram store fills.

#include <cstdint>
#include <string>
#include <vector>

#include "be/hist/hist_rollup_config.h"

namespace db::raw {
class raw_shard_factory_c;
class rollup_target_c;
struct raw_shard_factory_params_t;
}  // namespace db::raw

// Opens the store of every period and starts their retention. `raw`: the raw histogram store's. What is wrong
// in the configuration ends the process.
void hist_shard_mgr_init(const char *node_id, const db::raw::raw_shard_factory_params_t &raw);
void hist_shard_mgr_close();  // after the rollup has ended

// ---- empty, null and so on before init: there is no raw histogram store
const std::vector<hist_rollup_config_t> &get_hist_rollup_configs();
// The largest configured period that divides `period`; *collapse: how many of its slots make one. With a null
// collapse that period itself. Null: there is none.
const hist_rollup_config_t *hist_mgr_rollup_config(unsigned period, unsigned *collapse);
db::raw::raw_shard_factory_c *rest_hist_shard_mgr_get_factory(int index);
const std::string &rest_hist_shard_mgr_get_path();  // what lies outside of the shards is kept there, too
// What the rollup writes into, by ascending period.
std::vector<db::raw::rollup_target_c *> hist_shard_mgr_get_targets();
// The earliest second that some period still keeps; 0: one keeps for ever.
uint64_t hist_shard_mgr_get_max_oldest_retention_time_s();
// How far apart two cumulative histograms may be to be differenced.
uint64_t get_max_cumul_arrival_dist_s();
