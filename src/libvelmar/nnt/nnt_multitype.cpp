#include "libvelmar/nnt/nnt_multitype.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "platform/krel/base/krel_log.h"

float libvelmar_private_nan_float = std::numeric_limits<float>::quiet_NaN();
double libvelmar_private_nan_double = std::numeric_limits<double>::quiet_NaN();

namespace {

[[noreturn]] void fatal_type(velmar_metric_type_t type) {
  krel_fatal("Unknown type: 0x%04x\n", type);
}

// Weights are ints by definition; what exceeds them wraps.
int sum(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

double number(nnt_type_t type, const nnt_value_t &value, double otherwise) {
  switch (type) {
    case NNT_TYPE_INT32:
      return value.v_int32;
    case NNT_TYPE_UINT32:
      return value.v_uint32;
    case NNT_TYPE_INT64:
      return static_cast<double>(value.v_int64);
    case NNT_TYPE_UINT64:
      return static_cast<double>(value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return value.v_double;
    default:
      return otherwise;
  }
}

// A square in float, as stored deviations enter a second moment.
double square(float x) {
  const float squared = x * x;
  return squared;
}

float deviation(double variance) {
  return variance < 0 ? 0.0F : static_cast<float>(std::sqrt(variance));
}

void set_value(nnt_multitype *cell, const metric_value_t &sample) {
  cell->type = metric_to_nnt_type(sample.type);
  cell->value.v_uint64 = 0;
  switch (cell->type) {
    case NNT_TYPE_INT32:
    case NNT_TYPE_UINT32:
      cell->value.v_uint32 = sample.storage.v_uint32;
      break;
    case NNT_TYPE_INT64:
    case NNT_TYPE_UINT64:
    case NNT_TYPE_DOUBLE:
      cell->value.v_uint64 = sample.storage.v_uint64;
      break;
    default:
      fatal_type(sample.type);
  }
}

void accum_value(nnt_multitype *a, int a_count, const nnt_multitype *v, int v_count, int count) {
  const double avg_l = nnt_multitype_double(*a), avg_r = nnt_multitype_double(*v);
  const double avg = (a_count * avg_l + v_count * avg_r) / count;
  nnt_multitype_set_mean(a, avg);
  if (!a->stddev_present && !v->stddev_present) return;
  if (!a->stddev_present) a->stddev = 0;
  a->stddev_present = 1;
  if (!v->stddev_present) return;
  a->stddev = deviation(
      (a_count * (avg_l * avg_l + square(a->stddev)) + v_count * (avg_r * avg_r + square(v->stddev))) / count -
      avg * avg);
}

// A mean rate and its deviation, merged by weights. The deviation of counters also needs the other side's rate.
void accum_rate(float *a_rate, float *a_stddev, int a_run, float v_rate, float v_stddev, int v_run,
                bool is_counter) {
  const int total = sum(a_run, v_run);
  if (total == 0) return;
  const double d_a = *a_rate, d_v = v_rate;
  if (a_run == 0 || std::isnan(d_a)) {
    *a_rate = v_rate;
  } else if (std::isnan(d_v)) {
    return;
  } else {
    const auto weighted = static_cast<float>(a_run * d_a + v_run * d_v);
    *a_rate = static_cast<float>(static_cast<double>(weighted) / total);
  }
  if (a_run == 0 || std::isnan(*a_stddev)) {
    *a_stddev = v_stddev;
  } else if (!std::isnan(v_stddev) && !(is_counter && std::isnan(d_v))) {
    const double moment =
        (v_run * (d_v * d_v + square(v_stddev)) + a_run * (d_a * d_a + square(*a_stddev))) / total;
    *a_stddev = deviation(moment - square(*a_rate));
  }
}

}  // namespace

void init_private_nan() {
  volatile double zero = 0;
  volatile float zero_float = 0;
  libvelmar_private_nan_double = zero / zero;
  libvelmar_private_nan_float = zero_float / zero_float;
  if (std::isnan(libvelmar_private_nan_double) && std::isnan(libvelmar_private_nan_float)) return;
  krel_log(krel_error, "Cannot construct a NaN value!\n");
  exit(-1);
}

nnt_type_t metric_to_nnt_type(velmar_metric_type_t type) {
  switch (type) {
    case VELMAR_METRIC_INT32:
      return NNT_TYPE_INT32;
    case VELMAR_METRIC_UINT32:
      return NNT_TYPE_UINT32;
    case VELMAR_METRIC_INT64:
      return NNT_TYPE_INT64;
    case VELMAR_METRIC_UINT64:
      return NNT_TYPE_UINT64;
    case VELMAR_METRIC_DOUBLE:
      return NNT_TYPE_DOUBLE;
    default:
      return NNT_TYPE_NULL;
  }
}

double nnt_multitype_double(const nnt_multitype &cell) {
  return number(cell.type, cell.value, 0);
}

void nnt_multitype_set_mean(nnt_multitype *cell, double mean) {
  // the bounds are 0 and 2^64, -2^63 and 2^63: outside of them, and for NaN, a cast has no meaning
  if (mean >= 0 && mean < 0x1p64) {
    const auto whole = static_cast<uint64_t>(mean);
    if (static_cast<double>(whole) == mean) {
      cell->type = NNT_TYPE_UINT64;
      cell->value.v_uint64 = whole;
      return;
    }
  } else if (mean >= -0x1p63 && mean < 0) {
    const auto whole = static_cast<int64_t>(mean);
    if (static_cast<double>(whole) == mean) {
      cell->type = NNT_TYPE_INT64;
      cell->value.v_int64 = whole;
      return;
    }
  }
  cell->type = NNT_TYPE_DOUBLE;
  cell->value.v_double = mean;
}

double metric_value_double(const metric_value_t &value) {
  if (value.is_null) return libvelmar_private_nan_double;
  return number(metric_to_nnt_type(value.type), value.storage, libvelmar_private_nan_double);
}

int64_t metric_value_int64(const metric_value_t &value) {
  switch (value.type) {
    case VELMAR_METRIC_INT32:
      return value.storage.v_int32;
    case VELMAR_METRIC_UINT32:
      return value.storage.v_uint32;
    case VELMAR_METRIC_INT64:
    case VELMAR_METRIC_UINT64:
      return value.storage.v_int64;
    default:
      fatal_type(value.type);
  }
}

uint64_t metric_value_uint64(const metric_value_t &value) {
  return static_cast<uint64_t>(metric_value_int64(value));
}

void calculate_change(const metric_value_t &v1, const metric_value_t &v2, double *dy, int *dt) {
  *dt = static_cast<int>(static_cast<uint32_t>(v2.whence_ms - v1.whence_ms));
  *dy = libvelmar_private_nan_double;
  const auto either = [&](velmar_metric_type_t type) { return v1.type == type || v2.type == type; };
  if (either(VELMAR_METRIC_ABSENT) || either(VELMAR_METRIC_STRING)) return;
  if (v1.is_null || v2.is_null) {
    krel_log(krel_error, "calculate_change on null metric, lhs is_null? %d; rhs is_null? %d.\n", v1.is_null,
             v2.is_null);
    return;
  }
  const auto in_double = [&] { return metric_value_double(v2) - metric_value_double(v1); };
  const auto negative = [](const metric_value_t &v) {
    return v.type != VELMAR_METRIC_UINT64 && metric_value_int64(v) < 0;
  };
  if (either(VELMAR_METRIC_DOUBLE)) {
    *dy = in_double();
  } else if (!either(VELMAR_METRIC_UINT64)) {
    int64_t difference = 0;
    const bool overflow = __builtin_sub_overflow(metric_value_int64(v2), metric_value_int64(v1), &difference);
    *dy = overflow ? in_double() : static_cast<double>(difference);
  } else if (negative(v1) || negative(v2)) {
    *dy = in_double();
  } else {
    const uint64_t u1 = metric_value_uint64(v1), u2 = metric_value_uint64(v2);
    const auto difference = static_cast<int64_t>(u2 - u1);
    if (u2 >= u1)
      *dy = static_cast<double>(u2 - u1);
    else
      *dy = difference > 0 ? in_double() : static_cast<double>(difference);
  }
}

void add_data_to_bucket(const metric_value_t &current_value, metric_value_t **last_value, nnt_multitype *bucket,
                        int *drun, int *crun) {
  if (current_value.is_null) return;
  if (!*last_value) {
    bucket->count = 1;
    set_value(bucket, current_value);
    *last_value = static_cast<metric_value_t *>(calloc(1, sizeof(metric_value_t)));
    krel_assert(*last_value);
  } else {
    double dy;
    int dt;
    calculate_change(**last_value, current_value, &dy, &dt);
    const int local_drun = std::max(dt, 0);
    const double derivative = dt > 0 ? dy * 1000.0 / dt : libvelmar_private_nan_double;
    const int local_crun = derivative >= 0 ? local_drun : 0;
    const float nan = libvelmar_private_nan_float;
    nnt_multitype cell{};
    set_value(&cell, current_value);
    cell.count = 1;
    cell.stddev_present = 1;
    cell.derivative = static_cast<float>(derivative);
    cell.counter = derivative >= 0 ? cell.derivative : nan;
    cell.min = cell.max = nan;
    cell.derivative_stddev = cell.derivative_min = cell.derivative_max = nan;
    cell.counter_stddev = cell.counter_min = cell.counter_max = nan;
    bucket->count = static_cast<uint32_t>(nnt_multitype_accum_counts(
        bucket, static_cast<int>(bucket->count), *drun, *crun, &cell, 1, local_drun, local_crun));
    if (std::isnan(bucket->stddev)) bucket->stddev = 0;
    *drun = sum(*drun, local_drun);
    *crun = sum(*crun, local_crun);
  }
  (*last_value)->type = current_value.type;
  (*last_value)->whence_ms = current_value.whence_ms;
  (*last_value)->storage = current_value.storage;
}

int nnt_multitype_accum_counts(nnt_multitype *a, int a_count, int a_drun, int a_crun, const nnt_multitype *v,
                               int v_count, int v_drun, int v_crun) {
  if (a->type == NNT_TYPE_ABSENT) {
    if (v->type == NNT_TYPE_ABSENT) return 0;
    *a = *v;
    return v_count;
  }
  const int count = sum(a_count, v_count);
  if (count != 0) accum_value(a, a_count, v, v_count, count);
  accum_rate(&a->derivative, &a->derivative_stddev, a_drun, v->derivative, v->derivative_stddev, v_drun, false);
  accum_rate(&a->counter, &a->counter_stddev, a_crun, v->counter, v->counter_stddev, v_crun, true);
  return count;
}

void nnt_multitype_accum(nnt_multitype *a, const nnt_multitype *v) {
  const int a_count = static_cast<int>(a->count), v_count = static_cast<int>(v->count);
  const int count = nnt_multitype_accum_counts(a, a_count, a_count, a_count, v, v_count, v_count, v_count);
  a->count = std::min(static_cast<uint32_t>(count), NNT_COUNT_MAX);
}

void nnt_multitype_rollup(nnt_multitype *a, int aweight, size_t vcnt, const nnt_multitype *v, int vweight) {
  for (size_t i = 0; i < vcnt; i++) {
    if (v[i].count == 0) continue;
    const int count = nnt_multitype_accum_counts(a, static_cast<int>(a->count), aweight, aweight, &v[i],
                                                 static_cast<int>(v[i].count), vweight, vweight);
    a->count = std::min(static_cast<uint32_t>(count), NNT_COUNT_MAX);
    aweight = sum(aweight, vweight);
  }
}
