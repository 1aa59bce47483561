#pragma once
// Where the rollup of a raw shard puts its cells. Called by several jobs at once; a call returns when its cells
// are stored.

#include <cstdint>
#include <span>

#include "libvelmar/nnt/nnt_multitype.h"
#include "platform/tolvllhist/tolvllhist.h"
#include "util/metric_locator.h"

namespace db::raw {

// A histogram of one slot; looked at, not taken.
struct histogram_cell_t {
  uint64_t ts_ms;
  const histogram_t *histogram;
};

class rollup_target_c {
 public:
  virtual ~rollup_target_c() = default;
  virtual unsigned get_period_s() const = 0;
  // Consecutive cells from start_ms on; those without data are not written. False, logged, when one was not
  // stored.
  virtual bool write_numeric(const metric_locator_sp &locator, uint64_t start_ms,
                             std::span<const nnt_multitype> cells) = 0;
  // In ascending order of time.
  virtual bool write_histograms(const metric_locator_sp &locator, std::span<const histogram_cell_t> cells) = 0;
};

}  // namespace db::raw
