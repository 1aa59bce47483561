// Life, filling and merging of histograms.

#include <algorithm>
#include <cmath>
#include <memory>

#include "platform/tolvllhist/hist_bins.h"

namespace {

// Index of the first rank that is not below `rank`.
size_t lower_index(const std::vector<int16_t> &ranks, int16_t rank) {
  size_t n = ranks.size();
  if (n == 0) return 0;
  const int16_t *base = ranks.data();
  while (n > 1) {
    const size_t half = n / 2;
    base += static_cast<size_t>(base[half - 1] < rank) * half;
    n -= half;
  }
  return static_cast<size_t>(base - ranks.data()) + (*base < rank);
}

uint64_t insert_rank(histogram_t *hist, int16_t rank, uint64_t count) {
  const size_t i = lower_index(hist->m_ranks, rank);
  if (i < hist->size() && hist->m_ranks[i] == rank)
    return hist->m_counts[i] = hist_saturating_add(hist->m_counts[i], count);
  if (count == 0) return 0;
  hist->m_ranks.insert(hist->m_ranks.begin() + static_cast<ptrdiff_t>(i), rank);
  hist->m_counts.insert(hist->m_counts.begin() + static_cast<ptrdiff_t>(i), count);
  return count;
}

// The number of bins of the source, empty ones apart, that the target has not.
size_t count_missing(const histogram_t &target, const histogram_t &source) {
  size_t missing = 0, i = 0;
  for (size_t j = 0; j < source.size(); ++j) {
    while (i < target.size() && target.m_ranks[i] < source.m_ranks[j]) ++i;
    const bool found = i < target.size() && target.m_ranks[i] == source.m_ranks[j];
    missing += !found && source.m_counts[j] != 0;
  }
  return missing;
}

bool same_bins(const histogram_t &a, const histogram_t &b) {
  return a.m_ranks == b.m_ranks;
}

// From the back, so that the target's own bins move up into the room made for the missing ones.
void merge(histogram_t *target, const histogram_t &source, size_t missing) {
  size_t from = target->size();
  size_t to = from + missing;
  target->m_ranks.resize(to);
  target->m_counts.resize(to);
  int16_t *ranks = target->m_ranks.data();
  uint64_t *counts = target->m_counts.data();
  for (size_t j = source.size(); j-- > 0;) {
    const int16_t rank = source.m_ranks[j];
    const uint64_t count = source.m_counts[j];
    if (count == 0) continue;
    while (from > 0 && ranks[from - 1] > rank) {
      --from, --to;
      ranks[to] = ranks[from];
      counts[to] = counts[from];
    }
    --to;
    if (from > 0 && ranks[from - 1] == rank) {
      --from;
      counts[to] = hist_saturating_add(counts[from], count);
    } else {
      counts[to] = count;
    }
    ranks[to] = rank;
  }
}

}  // namespace

histogram_t *hist_alloc() {
  return std::make_unique<histogram_t>().release();
}

histogram_t *hist_fast_alloc_nbins(int nbins) {
  auto hist = std::make_unique<histogram_t>();
  const auto room = static_cast<size_t>(std::clamp(nbins, 0, 2 * HIST_MAX_RANK + 2));
  hist->m_ranks.reserve(room);
  hist->m_counts.reserve(room);
  return hist.release();
}

histogram_t *hist_clone(const histogram_t *hist) {
  return std::make_unique<histogram_t>(*hist).release();
}

void hist_free(histogram_t *hist) {
  std::unique_ptr<histogram_t>{hist};
}

void hist_clear(histogram_t *hist) {
  hist->m_ranks.clear();
  hist->m_counts.clear();
}

uint64_t hist_insert(histogram_t *hist, double value, uint64_t count) {
  return insert_rank(hist, hist_rank(hist_bucket_from_double(value)), count);
}

uint64_t hist_insert_raw(histogram_t *hist, hist_bucket_t bucket, uint64_t count) {
  return insert_rank(hist, hist_rank(hist_bucket_is_valid(bucket) ? bucket : HIST_NAN_BUCKET), count);
}

uint64_t hist_insert_intscale(histogram_t *hist, int64_t value, int scale, uint64_t count) {
  return insert_rank(hist, hist_rank(hist_bucket_from_int(value, scale)), count);
}

int hist_accumulate(histogram_t *target, const histogram_t *const *sources, int count) {
  for (int s = 0; s < count; ++s) {
    if (sources[s] == nullptr) continue;
    const histogram_t &source = *sources[s];
    if (same_bins(*target, source)) {
      uint64_t *to = target->m_counts.data();
      const uint64_t *from = source.m_counts.data();
      for (size_t i = 0, n = target->size(); i < n; ++i) to[i] = hist_saturating_add(to[i], from[i]);
    } else {
      merge(target, source, count_missing(*target, source));
    }
  }
  return hist_bucket_count(target);
}

int hist_subtract(histogram_t *target, const histogram_t *const *sources, int count) {
  int result = 0;
  for (int s = 0; s < count; ++s) {
    if (sources[s] == nullptr) continue;
    const histogram_t source = sources[s] == target ? *target : histogram_t{};
    const histogram_t &from = sources[s] == target ? source : *sources[s];
    size_t i = 0;
    for (size_t j = 0; j < from.size(); ++j) {
      const uint64_t take = from.m_counts[j];
      while (i < target->size() && target->m_ranks[i] < from.m_ranks[j]) ++i;
      if (i == target->size() || target->m_ranks[i] != from.m_ranks[j]) {
        if (take != 0) result = -1;
      } else if (target->m_counts[i] >= take) {
        target->m_counts[i] -= take;
      } else {
        target->m_counts[i] = 0;
        result = -1;
      }
    }
  }
  return result;
}

histogram_t *hist_downsample(const histogram_t *hist, double factor) {
  if (factor >= 1) return hist_clone(hist);
  auto result = std::make_unique<histogram_t>();
  if (!(factor > 0)) return result.release();
  double carry = 0;
  for (size_t i = 0; i < hist->size(); ++i) {
    const double share = static_cast<double>(hist->m_counts[i]) * factor + carry;
    const double whole = std::floor(share);
    carry = share - whole;
    if (whole >= 1)
      result->append(hist->m_ranks[i], whole >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(whole));
  }
  return result.release();
}

histogram_t *hist_compress_mbe(const histogram_t *hist, int8_t mbe) {
  auto result = std::make_unique<histogram_t>();
  for (size_t i = 0; i < hist->size(); ++i) {
    hist_bucket_t bucket = hist_bucket_of_rank(hist->m_ranks[i]);
    if (bucket.val != 0 && bucket.val != HIST_NAN_BUCKET.val && bucket.exp <= mbe) {
      bucket = bucket.exp < mbe ? hist_bucket_t{0, 0}
                                : hist_bucket_t{static_cast<int8_t>(bucket.val / 10 * 10), bucket.exp};
    }
    // Folding keeps the order, so an equal bin can only be the last one.
    const int16_t rank = hist_rank(bucket);
    if (result->size() != 0 && result->m_ranks.back() == rank) {
      result->m_counts.back() = hist_saturating_add(result->m_counts.back(), hist->m_counts[i]);
    } else {
      result->append(rank, hist->m_counts[i]);
    }
  }
  return result.release();
}

int hist_bucket_count(const histogram_t *hist) {
  return static_cast<int>(hist->size());
}

uint64_t hist_sample_count(const histogram_t *hist) {
  uint64_t total = 0;
  for (uint64_t count : hist->m_counts) total = hist_saturating_add(total, count);
  return total;
}

int hist_bucket_idx(const histogram_t *hist, int idx, double *midpoint, uint64_t *count) {
  hist_bucket_t bucket;
  if (!hist_bucket_idx_bucket(hist, idx, &bucket, count)) return 0;
  *midpoint = hist_bucket_midpoint(bucket);
  return 1;
}

int hist_bucket_idx_bucket(const histogram_t *hist, int idx, hist_bucket_t *bucket, uint64_t *count) {
  if (idx < 0 || static_cast<size_t>(idx) >= hist->size()) return 0;
  *bucket = hist_bucket_of_rank(hist->m_ranks[static_cast<size_t>(idx)]);
  *count = hist->m_counts[static_cast<size_t>(idx)];
  return 1;
}
