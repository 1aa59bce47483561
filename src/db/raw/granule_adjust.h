#pragma once
// Which span of time the shard of a sample covers.

#include <cstdint>

namespace db::raw {

class granule_adjust_c {
 public:
  granule_adjust_c(uint64_t max_clock_skew_s, uint64_t granularity_s)
      : m_max_clock_skew_s(max_clock_skew_s), m_granularity_s(granularity_s) {}
  uint64_t granularity_s() const { return m_granularity_s; }

  // *start and *end (seconds) come in as the gap that holds the time, 0 for an open end, and go out as the
  // aligned span. False, and they stay: the span does not fit the gap, or begins too far ahead of now_s.
  bool try_adjust(uint64_t ts_ms, uint64_t now_s, uint64_t *start, uint64_t *end) const;

 private:
  const uint64_t m_max_clock_skew_s, m_granularity_s;
};

}  // namespace db::raw
