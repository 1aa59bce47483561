#pragma once
// Coarser cells out of finer ones that are in the store. Blocking; from any thread.

#include "db/ranged/nntbs/nntbs.h"

// Makes the cell of dst that holds `offset` (seconds) anew from the cells of src. 0: stored, 1: the metric is
// unknown, else an error.
int nntbs_do_rollup(uint64_t offset, const rollup_config_t &src, const rollup_config_t &dst,
                    const metric_locator_sp &metric_locator);
// Makes all cells of to_period from epoch to apocalypse (seconds, both included) anew from from_period, which
// divides it. Slots without cells in from_period keep what they hold. False when a read or write failed.
bool nntbs_generate_single_rollup(const metric_locator_sp &metric_locator, unsigned from_period,
                                  unsigned to_period, uint64_t epoch, uint64_t apocalypse);
