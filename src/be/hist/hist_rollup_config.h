#pragma once
// The configured periods of histogram rollups.

#include <cstdint>
#include <string>
#include <vector>

struct hist_rollup_config_t {
  unsigned period;  // seconds
  int index;
  int parent_idx;          // the nearest smaller period that divides it; -1: the smallest
  uint64_t retention_s;    // 0: kept for ever
  uint64_t granularity_s;  // span of a shard
};

struct hist_config_t {
  std::string path;                           // of the shards, a directory for each period below it
  std::vector<hist_rollup_config_t> rollups;  // by ascending period
};

// Reads //histogram. What is wrong ends the process, with a text that says what to write. raw_granularity_s:
// the span of a shard of raw histograms, which every period must divide.
hist_config_t hist_mgr_read_config(const char *node_id, uint64_t raw_granularity_s);
