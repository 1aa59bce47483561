#pragma once
// What all passes of a raw store stand on, and one pass over a shard as its family jobs share it.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db/raw/rollup/rollup_suppression.h"
#include "db/raw/rollup/rollup_target.h"
#include "db/raw/shard.h"
#include "db/surrogate/surrogate.h"

struct stats_handle_t;

namespace db::raw {

// Runs a function somewhere; an empty one means: on the caller.
using runner_f = std::function<void(std::function<void()>)>;

struct rollup_stats_t {
  stats_handle_t *metrics = nullptr;      // rolled up
  stats_handle_t *samples = nullptr;      // that went into cells
  stats_handle_t *errors = nullptr;       // records passed over
  stats_handle_t *hist_errors = nullptr;  // histograms that cannot be read
  stats_handle_t *latency = nullptr;      // of a pass
};
// Registered in the namespace db.raw.rollup or db.hist_shard.rollup.
rollup_stats_t rollup_stats(nomdb_type_e kind);

struct rollup_store_t {
  nomdb_type_e kind = NUMERIC;
  std::vector<rollup_target_c *> targets;  // in ascending order of period
  std::shared_ptr<surrogate::lookup_synch_c> lookup;
  const rollup_suppression_c *suppression = nullptr;  // null: nothing is suppressed
  std::function<uint64_t()> oldest_retention_s;       // the earliest time that cells are kept of; empty: all
  runner_f family_runner;
  // histograms: where cumulative ones are kept for the next shard, and from how far they are differenced
  std::string forwarding_path;
  uint64_t max_cumul_arrival_dist_ms = 600000;
  rollup_stats_t stats;

  const char *kind_name() const { return kind == NUMERIC ? "numeric" : "histogram"; }
};

struct rollup_pass_t {
  const rollup_store_t *store;
  shard_sp shard;
  std::shared_ptr<raw_rollable_c> db;
  std::weak_ptr<shard_c> next;  // the shard that begins where this one ends, if there is one
  uint64_t start_s = 0, end_s = 0, preceding_start_s = 0;
  bool forced = false;  // takes what is there although samples still arrive
  std::function<bool()> is_stopping;
  std::vector<rollup_target_c *> targets;  // those whose cells the shard holds whole

  // The pass ends here and is taken up again later.
  bool is_aborted() const { return is_stopping() || shard->maintenance_mode() != ONLINE; }
};

}  // namespace db::raw
