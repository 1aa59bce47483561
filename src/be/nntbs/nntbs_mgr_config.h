#pragma once
// The configuration of the numeric rollups. For this room alone.

#include <string>

#include "db/ranged/nntbs/rollup_config.h"

// Adds the periods of //nntbs/shard to an empty set, checked against the raw store's granularity, and returns
// the directory of the store. What is wrong ends the process, with a text that says what to write.
std::string nntbs_mgr_read_config(const char *node_id, rollup_config_set_t *set);
