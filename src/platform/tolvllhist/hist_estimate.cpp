// Estimates from the bins: a bin's samples are spread evenly over it, or sit in its middle for sums.

#include <cmath>
#include <limits>

#include "platform/tolvllhist/hist_bins.h"

namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

double number_count(const histogram_t *hist) {
  double total = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i) total += static_cast<double>(hist->m_counts[i]);
  return total;
}

double quantile(const histogram_t *hist, double total, double share) {
  const double target = share * total;
  double below = 0;
  size_t last = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i) {
    if (hist->m_counts[i] == 0) continue;
    const auto count = static_cast<double>(hist->m_counts[i]);
    if (below + count >= target) {
      const hist_bucket_t bucket = hist_bucket_of_rank(hist->m_ranks[i]);
      const double lower = hist_bucket_lower(bucket);
      return lower + (hist_bucket_upper(bucket) - lower) * ((target - below) / count);
    }
    below += count;
    last = i;
  }
  return hist_bucket_upper(hist_bucket_of_rank(hist->m_ranks[last]));  // rounding went past the last bin
}

double share_below(const histogram_t *hist, double total, double value) {
  double below = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i) {
    const hist_bucket_t bucket = hist_bucket_of_rank(hist->m_ranks[i]);
    const double lower = hist_bucket_lower(bucket), upper = hist_bucket_upper(bucket);
    const auto count = static_cast<double>(hist->m_counts[i]);
    if (value <= lower) break;
    if (value < upper) {
      below += count * ((value - lower) / (upper - lower));
      break;
    }
    below += count;
  }
  return below / total;
}

}  // namespace

double hist_approx_sum(const histogram_t *hist) {
  double sum = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i)
    if (hist->m_counts[i] != 0)
      sum +=
          hist_bucket_midpoint(hist_bucket_of_rank(hist->m_ranks[i])) * static_cast<double>(hist->m_counts[i]);
  return sum;
}

double hist_approx_mean(const histogram_t *hist) {
  const double total = number_count(hist);
  return total == 0 ? NOT_A_NUMBER : hist_approx_sum(hist) / total;
}

double hist_approx_stddev(const histogram_t *hist) {
  const double total = number_count(hist);
  if (total == 0) return NOT_A_NUMBER;
  const double mean = hist_approx_sum(hist) / total;
  double squares = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i) {
    const double distance = hist_bucket_midpoint(hist_bucket_of_rank(hist->m_ranks[i])) - mean;
    squares += distance * distance * static_cast<double>(hist->m_counts[i]);
  }
  return std::sqrt(squares / total);
}

int hist_approx_quantile(const histogram_t *hist, const double *in, int count, double *out) {
  for (int i = 0; i < count; ++i)
    if (!(in[i] >= 0 && in[i] <= 1)) return -1;
  const double total = number_count(hist);
  for (int i = 0; i < count; ++i) out[i] = total == 0 ? NOT_A_NUMBER : quantile(hist, total, in[i]);
  return 0;
}

int hist_approx_inverse_quantile(const histogram_t *hist, const double *in, int count, double *out) {
  for (int i = 0; i < count; ++i)
    if (std::isnan(in[i])) return -1;
  const double total = number_count(hist);
  for (int i = 0; i < count; ++i) out[i] = total == 0 ? NOT_A_NUMBER : share_below(hist, total, in[i]);
  return 0;
}

uint64_t hist_approx_count_above(const histogram_t *hist, double value) {
  uint64_t total = 0;
  for (size_t i = hist->size(); i-- > hist->first_number();) {
    if (!(hist_bucket_lower(hist_bucket_of_rank(hist->m_ranks[i])) >= value)) break;
    total = hist_saturating_add(total, hist->m_counts[i]);
  }
  return total;
}

uint64_t hist_approx_count_below(const histogram_t *hist, double value) {
  uint64_t total = 0;
  for (size_t i = hist->first_number(); i < hist->size(); ++i) {
    const double upper = hist_bucket_upper(hist_bucket_of_rank(hist->m_ranks[i]));
    if (!(hist->m_ranks[i] == 0 ? upper < value : upper <= value)) break;
    total = hist_saturating_add(total, hist->m_counts[i]);
  }
  return total;
}
