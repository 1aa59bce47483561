#pragma once
// Cells of one metric one at a time, from a window around the time last asked for. Belongs to one caller.

#include <cstdint>
#include <memory>

#include "be/rollup/rollup_fetcher.h"
#include "platform/krel/base/krel_clock.h"

namespace velmar_be_rollup {

class read_rollup_c {
 public:
  enum result_e : int { FOUND = 1, EMPTY = 0, UNAVAILABLE = -1 };

  // Cells of `period` seconds; a window is `collapse` times as long as a read says.
  read_rollup_c(metric_locator_sp metric_locator, uint32_t period, uint32_t collapse,
                std::unique_ptr<rollup_fetcher_c> fetcher, const clock_c *clock);

  // The cell that t (seconds) lies in; when it is not in the window, a window from `before` periods before t on
  // is fetched first, which blocks. deadline_us: by the wall clock, 0 for none. EMPTY: the metric has no data
  // there. UNAVAILABLE: the fetch failed, or t lies past the metric's end as it was known less than 300 s ago.
  int read(uint64_t t, uint32_t before, uint32_t after, uint64_t deadline_us, nnt_multitype *cell);

 private:
  bool fetch(uint64_t t, uint32_t before, uint32_t after, uint64_t deadline_us);
  void set_readfast_handle(fetched_window_t window, uint64_t epoch, uint64_t apocalypse);

  const clock_c *const m_clock;
  const std::unique_ptr<rollup_fetcher_c> m_fetcher;
  const metric_locator_sp m_metric_locator;
  const uint32_t m_period, m_collapse;
  bool m_is_open = false;  // a window is there, though it may hold nothing
  nnt_readfast_up m_rfh;
  // Half-open ranges in seconds: of all the metric's data, of the window.
  uint64_t m_original_epoch = 0, m_original_apocalypse = 0;
  uint64_t m_current_epoch = 0, m_current_apocalypse = 0;
  uint64_t m_metadata_refresh_time = 0;  // seconds
};

// Reads here when this node owns the metric, else from an owner. Null: the stores are not open.
class read_rollup_factory_impl_c {
 public:
  static std::unique_ptr<read_rollup_c> create(metric_locator_sp metric_locator, uint32_t period,
                                               uint32_t collapse);
};

}  // namespace velmar_be_rollup
