#pragma once
// The numeric rollups of the node: the configured periods, and reading and writing cells with what follows from
// it. Blocking, but for the getters; from any thread.

#include <string>

#include "db/ranged/nntbs/nntbs.h"

// Reads the periods of //nntbs and opens the store. Configuration errors end the process. An ephemeral node has
// no store. reconstitute: the store is being rebuilt; nothing expires meanwhile. After the surrogate database.
void nntbs_mgr_init(const char *node_id, bool ephemeral, bool reconstitute);
void nntbs_mgr_close();
// Empty without a store.
rollup_config_set_t &nntbs_mgr_get_rollup_configs();

// offset in seconds. 0, or an error of the store with its text in *error, where given.
int nntbs_mgr_put(uint64_t offset, const metric_locator_sp &metric_locator, const nnt_multitype &v,
                  std::string *error);  // at the smallest period, and all that is rolled up from it
int nntbs_mgr_put_specific(rollup_config_t *r, uint64_t offset, const metric_locator_sp &metric_locator,
                           const nnt_multitype &v, std::string *error, bool should_do_rollups);
// Consecutive cells. Cells without data clear their slots.
int nntbs_mgr_put_range(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype *v,
                        size_t entries, uint64_t period_ms, absent_cells_e absent = absent_cells_e::clear);

// Reads `count` cells of period r from offset (seconds) on and makes one of each `collapse`. v has room for
// count and is zeroed. How many cells it holds then, or -1: the metric is unknown, or nothing was asked for.
// *error can also tell of damage that ended the read early.
int64_t nntbs_mgr_get_range(uint64_t offset, const metric_locator_sp &metric_locator, rollup_config_t *r,
                            unsigned collapse, int64_t count, nnt_multitype *v, uint64_t *original_epoch,
                            uint64_t *original_apocalypse, std::string *error);

// Makes the cells that hold `offset` anew in all periods that are rolled up from the one at index idx.
void nntbs_mgr_do_rollups(uint64_t offset, int idx, const metric_locator_sp &metric_locator);
// All cells of a period from epoch to apocalypse (seconds, both included) out of a finer one.
bool nntbs_mgr_generate_single_rollup(const metric_locator_sp &metric_locator, unsigned from_period,
                                      unsigned to_period, uint64_t epoch, uint64_t apocalypse);
