#pragma once
// Rollup data for other subsystems, read from this node's stores.

#include <functional>

#include "db/ranged/ranged.h"

namespace velmar_be_rollup {

// The reader of rollups and of what lies past them in samples. Null before the stores are open.
const db::kv::ranged_reader_c *get_ranged_reader();
const db::kv::ranged_reader_c *get_ranged_synch_reader();

// Gets each run; what it looks at goes with the call. False ends the read.
using rollup_run_callback_t = std::function<bool(const db::kv::ranged_c::value_c &run)>;
// Reads the cells of [start, end) (milliseconds, multiples of the span) in order of time. A stored period that
// only divides the span will do. Blocks. NONE when it went well, also without data.
db::kv::code_e rollup_fetch(const metric_locator_sp &metric_locator, uint64_t start_ms, uint64_t end_ms,
                            uint64_t span_ms, const rollup_run_callback_t &callback);

}  // namespace velmar_be_rollup
