#include "db/raw/granule_adjust.h"

namespace db::raw {

bool granule_adjust_c::try_adjust(uint64_t ts_ms, uint64_t now_s, uint64_t *start, uint64_t *end) const {
  const uint64_t floor = (ts_ms - ts_ms % (m_granularity_s * 1000)) / 1000;
  const uint64_t ceiling = floor + m_granularity_s;
  if (floor < *start) return false;
  if (*end != 0 && ceiling > *end) return false;
  if (floor > now_s && floor - now_s > m_max_clock_skew_s) return false;
  *start = floor;
  *end = ceiling;
  return true;
}

}  // namespace db::raw
