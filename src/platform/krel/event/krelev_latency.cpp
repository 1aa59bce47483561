#include "platform/krel/event/krelev_latency.h"

#include <algorithm>
#include <bit>
#include <cmath>

// Buckets 0-7 are single nanoseconds; from 8 on the top bit chooses the octave, the next three the part.
unsigned krelev_latency_c::bucket_of(uint64_t ns) {
  if (ns < 8) return static_cast<unsigned>(ns);
  unsigned top = 63 - static_cast<unsigned>(std::countl_zero(ns));
  unsigned octave = top - 2;
  if (octave >= k_octaves) return k_octaves * 8 - 1;
  return octave * 8 + static_cast<unsigned>(ns >> (top - 3) & 7);
}

double krelev_latency_c::middle_of(unsigned bucket) {
  if (bucket < 8) return bucket;
  double step = std::ldexp(1.0, static_cast<int>(bucket / 8) - 1);
  return (8 + bucket % 8 + 0.5) * step;
}

void krelev_latency_c::add(uint64_t ns) {
  ns = std::min(ns, k_longest_ns);
  ++m_counts[bucket_of(ns)];
  m_sum_ns += ns;
  if (++m_count >= 65536) fade();
}

void krelev_latency_c::fade() {
  uint64_t before = m_count;
  m_count = 0;
  for (uint32_t &count : m_counts) m_count += count /= 2;
  m_sum_ns = static_cast<uint64_t>(static_cast<double>(m_sum_ns) * static_cast<double>(m_count) /
                                   static_cast<double>(before));
}

double krelev_latency_c::mean_us() const {
  return m_count == 0 ? 0 : static_cast<double>(m_sum_ns) / static_cast<double>(m_count) / 1000;
}

double krelev_latency_c::quantile_us(double q) const {
  auto wanted = static_cast<uint64_t>(std::ceil(q * static_cast<double>(m_count)));
  uint64_t seen = 0;
  for (unsigned i = 0; i < m_counts.size(); ++i) {
    seen += m_counts[i];
    if (seen >= wanted && m_counts[i] != 0) return middle_of(i) / 1000;
  }
  return 0;
}
