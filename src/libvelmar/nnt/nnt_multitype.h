#pragma once
// The cell of numeric rollups: what is known of one metric in one slot of a period, and how cells are built
// from samples and merged into coarser ones. Plain data; nothing here locks or, but for one noted exception,
// allocates.
//
// Arithmetic is fixed to the last bit: which steps are in double and which are rounded to float is part of the
// stored form, so this room is compiled without contraction of multiply and add.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "util/metric_type.h"

enum nnt_type_t : uint32_t {
  NNT_TYPE_ABSENT = 0,  // no data in this slot
  NNT_TYPE_NULL = 1,    // a slot known to be empty of a number
  NNT_TYPE_INT32 = 2,
  NNT_TYPE_UINT32 = 3,
  NNT_TYPE_INT64 = 4,
  NNT_TYPE_UINT64 = 5,
  NNT_TYPE_DOUBLE = 6,
  NNT_TYPE_STRING = 7,  // never stored
};

union nnt_value_t {
  int32_t v_int32;
  uint32_t v_uint32;
  int64_t v_int64;
  uint64_t v_uint64;
  double v_double;
};

// A zeroed cell is the empty cell. Rates are per second. Minima and maxima are in no stored form.
struct nnt_multitype {
  nnt_type_t type;
  uint32_t count;  // samples behind the cell
  uint8_t stddev_present;
  float stddev;       // of the population
  nnt_value_t value;  // the mean
  float min, max;
  float derivative, derivative_stddev, derivative_min, derivative_max;
  float counter, counter_stddev, counter_min, counter_max;  // of the rates that are not negative
};

static_assert(sizeof(nnt_multitype) == 64 && std::is_trivial_v<nnt_multitype>);

// One raw numeric sample as it is folded into cells.
struct metric_value_t {
  uint64_t whence_ms;
  velmar_metric_type_t type;
  bool is_null;
  nnt_value_t storage;
};

constexpr uint32_t NNT_COUNT_MAX = 65535;

// The NaN that this code writes into cells.
extern float libvelmar_private_nan_float;
extern double libvelmar_private_nan_double;
// At start, before any cell is made; a failure ends the process.
void init_private_nan();

nnt_type_t metric_to_nnt_type(velmar_metric_type_t type);
// NaN for a null sample or a type that is no number.
double metric_value_double(const metric_value_t &value);
int64_t metric_value_int64(const metric_value_t &value);    // integer types only; others are fatal
uint64_t metric_value_uint64(const metric_value_t &value);  // the same
double nnt_multitype_double(const nnt_multitype &cell);     // 0 for a cell without a number
// A mean as it is stored: whole and not negative as uint64, whole and negative as int64, else as double.
void nnt_multitype_set_mean(nnt_multitype *cell, double mean);

// Change of the value and of the time in milliseconds between two samples; NaN where there is none.
void calculate_change(const metric_value_t &v1, const metric_value_t &v2, double *dy, int *dt);
// Folds a sample into a cell, which is zeroed before its first. *last_value is allocated with the first sample
// and freed (free) by the caller; drun and crun are the weights of the cell's derivative and counter so far, in
// milliseconds, zero for a new cell. Null samples are dropped. Strings and histograms are fatal.
void add_data_to_bucket(const metric_value_t &current_value, metric_value_t **last_value, nnt_multitype *bucket,
                        int *drun, int *crun);

// Merges v into a with the given weights and returns the sum of the counts, which it does not store in a.
int nnt_multitype_accum_counts(nnt_multitype *a, int a_count, int a_drun, int a_crun, const nnt_multitype *v,
                               int v_count, int v_drun, int v_crun);
// Merges with each cell's count as all of its weights; a's count becomes the sum, at most 65535.
void nnt_multitype_accum(nnt_multitype *a, const nnt_multitype *v);
// Merges vcnt consecutive cells into a, passing over those without samples. aweight: the weight of a's rates
// at the start; it grows by vweight with each cell merged.
void nnt_multitype_rollup(nnt_multitype *a, int aweight, size_t vcnt, const nnt_multitype *v, int vweight);
