#pragma once
// The configured rollup periods, sorted by ascending period. Made at start; afterwards only counters change.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct rollup_config_t {
  unsigned period = 0;  // seconds
  int my_idx = 0;
  int parent_idx = -1;  // the period it is rolled up from; -1: the smallest
  std::string dir;
  uint64_t since = 0;                        // seconds; data only from then on; 0: always
  uint64_t retention_length_seconds = 0;     // 0: keep for ever
  std::atomic<uint64_t> retention_epoch{0};  // the oldest time still kept
  std::atomic<uint64_t> put_calls{0}, put_elapsed_us{0}, get_calls{0}, get_count{0}, get_elapsed_us{0};
  std::atomic<uint64_t> fsid{0}, space_total{0}, space_avail{0};
  std::atomic<double> cratio{1.0};
};

struct rollup_config_set_t {
  std::vector<rollup_config_t *> configs;
};

// Sorts the set and works parents out; a period that no smaller one divides ends the process.
void rollup_config_init(rollup_config_set_t *set);

// `since` (seconds), when it is not 0, passes over periods that hold data only from a later time on. Each
// answers null (or -1) when there is none.
const rollup_config_t *rollup_config_get_base_rollup(const rollup_config_set_t &set);
// The largest period that divides `period`; without collapse (source cells to a cell) only an exact match.
const rollup_config_t *rollup_config_get_rollup_for_period(const rollup_config_set_t &set, unsigned period,
                                                           unsigned *collapse, uint64_t since);
// The largest period that is not larger than `period`.
const rollup_config_t *rollup_config_get_best_rollup_for_period(const rollup_config_set_t &set, unsigned period,
                                                                unsigned *collapse, uint64_t since);
const rollup_config_t *rollup_config_get_smallest_granularity_for_period(const rollup_config_set_t &set,
                                                                         unsigned period, unsigned *collapse,
                                                                         uint64_t since);
int rollup_config_get_smallest_rollup_in_system(const rollup_config_set_t &set, uint64_t since);
int rollup_config_get_specific_rollup(const rollup_config_set_t &set, int index);
const rollup_config_t *get_best_rollup_for_period_or_base(const rollup_config_set_t &set, unsigned period,
                                                          unsigned *collapse, uint64_t since);
