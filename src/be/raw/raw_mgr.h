#pragma once
// The raw stores of the node: assembled at start, closed at its end.

namespace db::raw {
class raw_shard_factory_c;
}

// Opens the numeric and the histogram store. After the surrogate database has been published.
void rest_raw_mgr_init(const char *node_id);
void rest_raw_mgr_close();

// Null: the store is not configured.
db::raw::raw_shard_factory_c *rest_raw_mgr_get_numeric_factory();
db::raw::raw_shard_factory_c *rest_raw_mgr_get_histogram_factory();
// Samples that are formatted between two flushes of an answer.
unsigned rest_raw_mgr_get_streaming_limit(bool histogram);
