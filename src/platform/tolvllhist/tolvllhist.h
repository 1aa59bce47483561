#pragma once
// Log-linear histograms: bins of two decimal digits, from 10^-128 to 10^128 on both sides of zero.
//
// A bin (val, exp) holds from val/10 x 10^exp, the edge nearest zero and included, one step of 1 in val
// away from zero; val is 10..99 or -10..-99. (0, 0) is the zero bin: |x| below 10^-128. (-1, 0) is the NaN
// bin: NaN, infinities, |x| of 10^128 and more. An edge is the double nearest to its decimal number.
// Counts saturate at 2^64 - 1. A histogram is its caller's to guard; const calls may run side by side.
//
// The estimates leave the NaN bin out; hist_sample_count has it in.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct histogram_t;
struct hist_bucket_t {
  int8_t val;
  int8_t exp;
};
enum : size_t { HIST_BUCKET_TEXT_SIZE = 16 };  // room for a bin's text with its end

// ---- life
histogram_t *hist_alloc();
histogram_t *hist_fast_alloc_nbins(int nbins);  // with room for that many bins at once
histogram_t *hist_clone(const histogram_t *hist);
void hist_free(histogram_t *hist);  // null is allowed
void hist_clear(histogram_t *hist);

// ---- bins
hist_bucket_t hist_bucket_from_double(double value);
hist_bucket_t hist_bucket_from_int(int64_t value, int scale);  // value x 10^scale, exactly
bool hist_bucket_is_valid(hist_bucket_t bucket);
double hist_bucket_lower(hist_bucket_t bucket);  // the edges in ascending order; NaN for the NaN bin
double hist_bucket_upper(hist_bucket_t bucket);
double hist_bucket_midpoint(hist_bucket_t bucket);
// "+12e-002" for 0.12 to 0.13, "0", "NaN"; strtod of the text falls in the bin. Returns the length, or -1
// when `size` has no room for it.
int hist_bucket_to_string(hist_bucket_t bucket, char *text, size_t size);

// ---- filling. The result is the bin's new count.
uint64_t hist_insert(histogram_t *hist, double value, uint64_t count);
// An impossible bin counts in the NaN bin.
uint64_t hist_insert_raw(histogram_t *hist, hist_bucket_t bucket, uint64_t count);
uint64_t hist_insert_intscale(histogram_t *hist, int64_t value, int scale, uint64_t count);
// Adds the sources (nulls are passed over) to the target; the result is the target's number of bins.
int hist_accumulate(histogram_t *target, const histogram_t *const *sources, int count);
// Takes the sources off the target. 0, or -1 when some bin would have gone below zero: it stays at 0.
int hist_subtract(histogram_t *target, const histogram_t *const *sources, int count);

// ---- reduced copies
// Every count times `factor` (0 to 1); fractions carry over to the next bin, so the total is kept to
// within one sample.
histogram_t *hist_downsample(const histogram_t *hist, double factor);
// No bin is narrower than 10^mbe: a narrower one goes toward zero into the bin at a multiple of 10^mbe.
histogram_t *hist_compress_mbe(const histogram_t *hist, int8_t mbe);

// ---- bins held, in ascending order of value, the NaN bin first; also those whose count is 0
int hist_bucket_count(const histogram_t *hist);
inline int hist_num_buckets(const histogram_t *hist) {
  return hist_bucket_count(hist);
}
uint64_t hist_sample_count(const histogram_t *hist);
// Bin number idx: its midpoint or itself, and its count. 1, or 0 when there is no such bin.
int hist_bucket_idx(const histogram_t *hist, int idx, double *midpoint, uint64_t *count);
int hist_bucket_idx_bucket(const histogram_t *hist, int idx, hist_bucket_t *bucket, uint64_t *count);

// ---- estimates; NaN of an empty histogram, except the sum, which is 0
double hist_approx_mean(const histogram_t *hist);
double hist_approx_sum(const histogram_t *hist);
double hist_approx_stddev(const histogram_t *hist);
// out[i] = the value below which the share in[i] of the samples lies, linear inside a bin.
// 0, or -1 when some share is not in 0..1 (nothing is written then).
int hist_approx_quantile(const histogram_t *hist, const double *in, int count, double *out);
// out[i] = the share of the samples below in[i], linear inside a bin. 0, or -1 when some in[i] is NaN.
int hist_approx_inverse_quantile(const histogram_t *hist, const double *in, int count, double *out);
// Samples in bins that lie wholly at or above, wholly below the value: the bin around it is in neither.
uint64_t hist_approx_count_above(const histogram_t *hist, double value);
uint64_t hist_approx_count_below(const histogram_t *hist, double value);

// ---- serialised: the byte 1, the number of bins as LEB128, then per bin in ascending order of value val,
// exp and the count as LEB128. Bins whose count is 0 are not written.
size_t hist_serialize_estimate(const histogram_t *hist);                     // the exact size
ssize_t hist_serialize(const histogram_t *hist, void *buffer, size_t size);  // bytes written; -1: no room
// Takes the place of what the histogram held. Bytes read, which are all of `size`, or -1 when they are
// anything else than a serialised histogram (the histogram is empty then).
ssize_t hist_deserialize(histogram_t *hist, const void *buffer, size_t size);
size_t hist_serialize_b64_estimate(const histogram_t *hist);
ssize_t hist_serialize_b64(const histogram_t *hist, char *text, size_t size);  // no terminator is written
ssize_t hist_deserialize_b64(histogram_t *hist, const void *text, size_t size);
