#pragma once
// The bins on a line: a bin's rank orders bins by value, NaN first, and neighbours differ by 1.

#include <cstdint>
#include <vector>

#include "platform/tolvllhist/tolvllhist.h"

constexpr int HIST_VALS_PER_EXP = 90;
constexpr int16_t HIST_MAX_RANK = 256 * HIST_VALS_PER_EXP;
constexpr int16_t HIST_NAN_RANK = -HIST_MAX_RANK - 1;
constexpr hist_bucket_t HIST_NAN_BUCKET = {-1, 0};

// Of a valid bin.
inline int16_t hist_rank(hist_bucket_t bucket) {
  const int base = (bucket.exp + 128) * HIST_VALS_PER_EXP;
  if (bucket.val >= 10) return static_cast<int16_t>(base + bucket.val - 9);
  if (bucket.val <= -10) return static_cast<int16_t>(-(base - bucket.val - 9));
  return bucket.val == 0 ? 0 : HIST_NAN_RANK;
}

inline hist_bucket_t hist_bucket_of_rank(int rank) {
  if (rank == 0) return {0, 0};
  if (rank == HIST_NAN_RANK) return HIST_NAN_BUCKET;
  const int line = (rank < 0 ? -rank : rank) - 1;
  const int val = line % HIST_VALS_PER_EXP + 10;
  return {static_cast<int8_t>(rank < 0 ? -val : val), static_cast<int8_t>(line / HIST_VALS_PER_EXP - 128)};
}

inline uint64_t hist_saturating_add(uint64_t a, uint64_t b) {
  const uint64_t sum = a + b;
  return sum | (0 - static_cast<uint64_t>(sum < a));
}

struct histogram_t {
  std::vector<int16_t> m_ranks;  // ascending, without repeats
  std::vector<uint64_t> m_counts;

  size_t size() const { return m_ranks.size(); }
  // Where the estimates begin: behind the NaN bin.
  size_t first_number() const { return !m_ranks.empty() && m_ranks[0] == HIST_NAN_RANK ? 1 : 0; }
  // Of an ascending series: behind all there is.
  void append(int16_t rank, uint64_t count) {
    m_ranks.push_back(rank);
    m_counts.push_back(count);
  }
};
