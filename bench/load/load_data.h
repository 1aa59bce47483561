#pragma once
// The data set: names and values as functions of (series, step, seed), so that any of them can be worked out
// again. Immutable once made; any thread may ask.

#include <cstdint>
#include <string>

#include "load_options.h"

constexpr int MAX_BINS = 24;

struct load_bin_t {
  int8_t val, exp;
  uint64_t count;
};

struct load_value_t {
  kind_e kind;
  bool is_null = false;
  int64_t integer = 0;  // a gauge's hundredths, a counter's or an integer's value
  double real = 0;
  int bin_count = 0;
  load_bin_t bins[MAX_BINS];  // ascending, positive
};

class load_data_c {
 public:
  explicit load_data_c(const load_options_t &options);

  uint64_t time_ms(uint64_t step) const { return m_options.start_ms + step * m_options.step_ms; }
  kind_e kind(uint64_t series) const;
  void value(uint64_t series, uint64_t step, load_value_t *out) const;

  // 36 characters; 64 neighbouring series share one, or all do in a form that names no check.
  std::string uuid(uint64_t series) const;
  void uuid_bytes(uint64_t series, uint8_t out[16]) const;
  std::string check_name(uint64_t series) const;   // without the uuid
  std::string metric_name(uint64_t series) const;  // canonical, with its tags
  // A number that has nothing to do with the values.
  uint64_t lot(uint64_t series) const;

 private:
  uint64_t hash(uint64_t series, uint64_t step, uint64_t purpose) const;

  const load_options_t m_options;
  uint32_t m_share_sum = 0;
};
