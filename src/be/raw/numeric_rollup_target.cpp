#include "be/raw/numeric_rollup_target.h"

#include "db/ranged/nntbs/nntbs.h"
#include "platform/krel/base/krel_log.h"

namespace be::raw {

bool numeric_rollup_target_c::write_numeric(const metric_locator_sp &locator, uint64_t start_ms,
                                            std::span<const nnt_multitype> cells) {
  const int error =
      nntbs_put_range(start_ms, locator, cells.data(), cells.size(), m_period_s, absent_cells_e::keep);
  if (error)
    krel_log(krel_error, "%zu rollup cells of period %u from %lu on were not stored for %s: error %d\n",
             cells.size(), m_period_s, start_ms / 1000, velmar_metric_locator_get_name_with_tags(locator.get()),
             error);
  // A shard that is offline takes cells without an error and drops them. Raw samples are not rolled up by that.
  const uint64_t start_s = start_ms / 1000, end_s = start_s + cells.size() * m_period_s;
  const bool dropped = nntbs_shard_maintenance_is_offline(m_period_s, start_s, end_s);
  if (m_dropped.exchange(dropped) != dropped && dropped)
    krel_log(
        krel_error,
        "cells of period %u between %lu and %lu cannot be stored: a rollup shard there is offline. The raw "
        "samples are kept, and rolled up again later\n",
        m_period_s, start_s, end_s);
  return error == 0 && !dropped;
}

}  // namespace be::raw
