#pragma once
// The job of one column family in a shard's rollup.

#include "db/raw/rollup/rollup_store.h"

namespace db::raw {

// Walks the family's records in key order and puts each metric's cells into the targets; goes on where an
// earlier pass was cut short. Leaves the family's ".done" marker when all cells are stored, and none when some
// are not or the pass was aborted. Blocking, on a thread of the family runner.
void rollup_column_family(const rollup_pass_t &pass, size_t family);

}  // namespace db::raw
