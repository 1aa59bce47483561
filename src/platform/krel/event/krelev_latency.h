#pragma once
// Distribution of durations: eight buckets to the power of two, so a quantile is off by 6 % at most.
// Old entries fade: at 65,536 all counts are halved. Not locked.

#include <array>
#include <cstdint>

class krelev_latency_c {
 public:
  void add(uint64_t ns);
  double mean_us() const;
  double quantile_us(double q) const;  // 0 when empty

 private:
  static constexpr unsigned k_octaves = 44;
  static constexpr uint64_t k_longest_ns = (uint64_t{1} << 45) - 1;  // 9.8 hours; longer ones count as that
  static unsigned bucket_of(uint64_t ns);
  static double middle_of(unsigned bucket);
  void fade();

  std::array<uint32_t, k_octaves * 8> m_counts{};
  uint64_t m_count = 0;
  uint64_t m_sum_ns = 0;
};
