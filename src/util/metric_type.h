#pragma once
// The kind of a sample's value, by an ASCII letter where there is one, and a number of any such kind.

#include <cstdint>

enum velmar_metric_type_t : uint8_t {
  VELMAR_METRIC_ABSENT = 0,
  VELMAR_METRIC_HISTOGRAM_ENTRY = 16,             // a gauge histogram_entries_t
  VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY = 32,  // a cumulative one
  VELMAR_METRIC_GUESS = '0',
  VELMAR_METRIC_HISTOGRAM_CUMULATIVE = 'H',  // serialised bytes
  VELMAR_METRIC_UINT32 = 'I',
  VELMAR_METRIC_UINT64 = 'L',
  VELMAR_METRIC_HISTOGRAM = 'h',  // serialised bytes
  VELMAR_METRIC_INT32 = 'i',
  VELMAR_METRIC_INT64 = 'l',
  VELMAR_METRIC_DOUBLE = 'n',
  VELMAR_METRIC_STRING = 's',
};

union velmar_metric_locator_numeric_value_t {
  uint64_t v_uint64;
  int64_t v_int64;
  uint32_t v_uint32;
  int32_t v_int32;
  double v_double;
};
static_assert(sizeof(velmar_metric_locator_numeric_value_t) == 8);
