#pragma once
// Functions that extensions put into the ways of cells. Registered at start, before the first read or write.

#include "db/ranged/nntbs/rollup_config.h"
#include "libvelmar/nnt/nnt_multitype.h"
#include "util/metric_locator.h"

// Each hook answers 0: go on, 1 or 2: see there.
enum : int { NNTBS_HOOK_CONTINUE = 0, NNTBS_HOOK_DONE = 1, NNTBS_HOOK_ABORT = 2 };

// Before a write. start in seconds. 2 aborts the write.
using put_nntbs_range_hook_f = int (*)(void *closure, const metric_locator_sp &metric_locator, uint64_t start,
                                       unsigned period, size_t count, const nnt_multitype *cells);
// In the lookup of a metric's range. 1 and 2: the hook has answered in *epoch and *apocalypse, where they are
// not null.
using get_nntbs_metadata_hook_f = int (*)(void *closure, uint64_t surrogate_id, unsigned period,
                                          uint64_t *epoch, uint64_t *apocalypse);
// On the read of ranges. 1 and 2: the hook has read *read_count cells; 2 ends the chain of hooks.
using fetch_nntbs_data_hook_f = int (*)(void *closure, const metric_locator_sp &metric_locator,
                                        uint64_t start_s, size_t count, unsigned collapse, nnt_multitype *cells,
                                        const rollup_config_t *cfg, size_t max_read_for_collapse,
                                        size_t *read_count);

void put_nntbs_range_hook_register(put_nntbs_range_hook_f function, void *closure);
void get_nntbs_metadata_hook_register(get_nntbs_metadata_hook_f function, void *closure);
void fetch_nntbs_data_hook_register(fetch_nntbs_data_hook_f function, void *closure);

// The last registered runs first; the first answer that is not 0 (of the fetch: that is 2) ends the chain.
int put_nntbs_range_hook_invoke(const metric_locator_sp &metric_locator, uint64_t start, unsigned period,
                                size_t count, const nnt_multitype *cells);
int get_nntbs_metadata_hook_invoke(uint64_t surrogate_id, unsigned period, uint64_t *epoch,
                                   uint64_t *apocalypse);
int fetch_nntbs_data_hook_invoke(const metric_locator_sp &metric_locator, uint64_t start_s, size_t count,
                                 unsigned collapse, nnt_multitype *cells, const rollup_config_t *cfg,
                                 size_t max_read_for_collapse, size_t *read_count);
