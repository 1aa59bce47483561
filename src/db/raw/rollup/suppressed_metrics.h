#pragma once
// Metrics whose rollups are suppressed have nothing left once their raw shards are gone: then their names go,
// too.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "db/raw/rollup/rollup_suppression.h"
#include "db/surrogate/surrogate.h"

struct stats_handle_t;

namespace db::raw {

class suppressed_metrics_c {
 public:
  suppressed_metrics_c(const rollup_suppression_c *suppression,
                       std::shared_ptr<surrogate::lookup_synch_c> lookup,
                       std::function<bool()> is_any_reconstituting);

  bool has_filter() const { return m_suppression && m_suppression->has_filter(); }
  // Deletes the numeric metrics that match the filter and have no activity from that second on. One at a time;
  // a second one that runs into it ends at once. Blocking.
  void clean_rollup_suppressed_metrics(uint64_t end_seconds);

 private:
  const rollup_suppression_c *const m_suppression;
  const std::shared_ptr<surrogate::lookup_synch_c> m_lookup;
  const std::function<bool()> m_is_any_reconstituting;
  stats_handle_t *const m_percent_success;
  std::mutex m_mutex;  // guards m_last_run_s
  uint64_t m_last_run_s = 0;
};

}  // namespace db::raw
