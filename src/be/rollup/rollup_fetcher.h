#pragma once
// Where a windowed reader gets a window of a metric's cells.

#include <cstdint>
#include <memory>
#include <optional>

#include "db/ranged/ranged.h"
#include "libvelmar/nnt/nnt.h"

namespace velmar_be_rollup {

struct rollup_window_t {
  metric_locator_sp metric_locator;
  uint64_t start_s = 0, end_s = 0;  // multiples of the period
  uint32_t period_s = 0;
};

struct fetched_window_t {
  bool ok = false;       // false: it failed, logged
  nnt_readfast_up view;  // null: there is no data in the window
  // The first and the last slot that the metric has at the period, seconds, where they are known.
  std::optional<uint64_t> original_epoch, original_last;
};

class rollup_fetcher_c {
 public:
  virtual ~rollup_fetcher_c() = default;
  // Blocks, for at most timeout_ms where that is not 0.
  virtual fetched_window_t fetch(const rollup_window_t &window, int timeout_ms) = 0;
};

// From this node's stores. The reader outlives the fetcher.
std::unique_ptr<rollup_fetcher_c> make_read_rollup_local(const db::kv::ranged_reader_c *reader);
// From an owner of the metric.
std::unique_ptr<rollup_fetcher_c> make_read_rollup_remote();

}  // namespace velmar_be_rollup
