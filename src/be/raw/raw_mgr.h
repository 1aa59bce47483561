#pragma once
// The raw stores of the node: assembled at start, closed at its end.

namespace db::raw {
class ctx_c;
class raw_shard_factory_c;
}  // namespace db::raw
struct rollup_config_set_t;

// Opens the numeric and the histogram store with their rollups: numbers into the given periods, histograms into
// those of //histogram. After the surrogate database and the store of numeric rollups.
void rest_raw_mgr_init(const char *node_id, const rollup_config_set_t &rollups);
// Cuts rollups short first; they go on after the next start. Before the store of numeric rollups is closed.
void rest_raw_mgr_close();

// Null: the store is not configured.
db::raw::raw_shard_factory_c *rest_raw_mgr_get_numeric_factory();
db::raw::raw_shard_factory_c *rest_raw_mgr_get_histogram_factory();
db::raw::ctx_c *rest_raw_mgr_get_ctx(bool histogram);  // null also when it has no periods to roll up to
// Samples that are formatted between two flushes of an answer.
unsigned rest_raw_mgr_get_streaming_limit(bool histogram);
