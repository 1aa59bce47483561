#pragma once
// One pass over a shard: a job for each column family, and what remains of them on disk.

#include "db/raw/rollup/rollup_store.h"

namespace db::raw {

enum class rollup_result_e {
  finished,  // all cells are stored
  dirty,     // it must be repeated: samples arrived, or cells were not stored
  aborted,   // it was cut short and will go on where it is
};

// Runs the jobs on the store's family runner and waits for them. One pass over a shard at a time. A pass that
// was cut short, by whatever, goes on where its families are; one that samples have overtaken begins anew. Not
// on a thread of the family runner.
rollup_result_e do_rollup(rollup_pass_t *pass);

}  // namespace db::raw
