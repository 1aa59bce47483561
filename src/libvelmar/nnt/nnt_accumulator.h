#pragma once
// One metric's samples, in order of time, folded into the cells of several periods at once. The result is bit
// by bit what add_data_to_bucket gives for each period by itself; this is the form for millions of samples a
// second. Reused from metric to metric. One thread at a time.

#include <cstdint>
#include <span>
#include <vector>

#include "libvelmar/nnt/nnt_multitype.h"

class nnt_accumulator_c {
 public:
  // Cells of [start_ms, end_ms) for each period (milliseconds); start_ms is a multiple of each. A span that is
  // not a multiple of a period ends with a shorter cell.
  nnt_accumulator_c(uint64_t start_ms, uint64_t end_ms, std::span<const uint64_t> periods_ms);
  ~nnt_accumulator_c();
  nnt_accumulator_c(const nnt_accumulator_c &) = delete;
  nnt_accumulator_c &operator=(const nnt_accumulator_c &) = delete;

  // The last sample before the span: it gives the first one in it a rate. A null is passed over.
  void set_prev(const metric_value_t &value);
  // A sample outside the span is passed over; so are a null and one before its
  // predecessor. Any numeric type; others are fatal.
  void add(const metric_value_t &value);

  size_t get_period_count() const;
  // The cells of a period, by slot; those without samples are empty. Until the next change.
  std::span<const nnt_multitype> get_cells(size_t period);
  // Which slots hold samples: the half-open range of slots outside of which there are none.
  struct range_t {
    size_t begin, end;
  };
  range_t get_filled(size_t period) const;
  // The last sample given that was no null, or null.
  const metric_value_t *get_last() const;
  uint64_t get_sample_count() const;

  // Ready for the next metric; touches only what was filled.
  void reset();

 private:
  struct impl_t;
  impl_t *const m;
};
