#pragma once
// The store of numeric rollup cells: blocks of 127 cells of one metric and period, in shards of time. Any
// thread that may block may call in. A write is in its shard when the call returns; a read takes no lock that a
// writer waits for.

#include <cstdint>
#include <string>

#include "db/ranged/nntbs/rollup_config.h"
#include "db/surrogate/surrogate.h"
#include "libvelmar/nnt/nnt_multitype.h"

namespace db::ranged::nntbs {
class rollup_shard_mgr_c;
}

// Opens the store with the periods of //nntbs/shard. Configuration errors and shards that cannot be opened end
// the process. Idempotent.
void nntbs_init(const std::string &path, rollup_config_set_t *configs,
                std::shared_ptr<db::surrogate::lookup_synch_c> lookup,
                std::shared_ptr<db::surrogate::writer_asynch_c> writer);
// The timers: retention every 60 s, counts of shards. Once, after nntbs_init and krelev_init.
void nntbs_start_maintenance();
void nntbs_close();                                            // after every read and write has ended
db::ranged::nntbs::rollup_shard_mgr_c *nntbs_get_shard_mgr();  // null before init

// The oldest second that some period still keeps; 0: one keeps all.
uint64_t nntbs_get_max_oldest_retention_time_s();
// Is some shard of the period that holds a part of [start, end) (seconds) not online?
bool nntbs_shard_maintenance_is_offline(unsigned period, uint64_t start, uint64_t end);

// What a cell without data in a write does to its slot.
enum class absent_cells_e { clear, keep };

// Writes `entries` consecutive cells of `period` seconds from offset_ms on. 0, or an error of the store. A
// locator that carries its surrogate id needs no lookup; for others the id is found or made.
int nntbs_put_range(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype *v,
                    size_t entries, unsigned period, absent_cells_e absent = absent_cells_e::clear);
int nntbs_put(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype &v,
              unsigned period);

// Reads `count` consecutive cells from `offset` (seconds) on into v, which the caller has zeroed; slots without
// data stay as they are. Returns count, or 0 when the metric is unknown or count below 1. original_epoch and
// original_apocalypse (seconds), where given: the metric's whole range at the period. *error tells of a damaged
// block; the cells before it are good.
size_t nntbs_get_range(uint64_t offset, const metric_locator_sp &metric_locator, unsigned period, int64_t count,
                       nnt_multitype *v, uint64_t *original_epoch, uint64_t *original_apocalypse,
                       std::string *error);
// 0, or -1 when the metric is unknown or has no data.
int nntbs_get_metadata(const metric_locator_sp &metric_locator, unsigned period, uint64_t *epoch,
                       uint64_t *apocalypse);
// Drops the metric's data before new_epoch (seconds). Always 0.
int nntbs_delete(unsigned period, uint64_t new_epoch, const metric_locator_sp &metric_locator,
                 std::string *error);
// Rebuilds a period from the next smaller one, offline. False, logged, when it is refused.
bool nntbs_generate_rollup(unsigned rebuild_rollup);
