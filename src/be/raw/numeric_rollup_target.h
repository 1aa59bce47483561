#pragma once
// Writes the cells of one period into the store of numeric rollups.

#include <atomic>

#include "db/raw/rollup/rollup_target.h"

namespace be::raw {

class numeric_rollup_target_c : public db::raw::rollup_target_c {
 public:
  explicit numeric_rollup_target_c(unsigned period_s) : m_period_s(period_s) {}
  unsigned get_period_s() const override { return m_period_s; }
  bool write_numeric(const metric_locator_sp &locator, uint64_t start_ms,
                     std::span<const nnt_multitype> cells) override;
  bool write_histograms(const metric_locator_sp &, std::span<const db::raw::histogram_cell_t>) override {
    return false;
  }

 private:
  const unsigned m_period_s;
  std::atomic<bool> m_dropped{false};  // the last cells met a shard that is offline
};

}  // namespace be::raw
