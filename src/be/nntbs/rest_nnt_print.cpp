#include "be/nntbs/rest_nnt_print.h"

#include <cmath>
#include <cstring>
#include <string_view>
#include <vector>

#include "be/nntbs/print_number.h"
#include "platform/krel/base/krel_log.h"

namespace {

constexpr double UNKNOWN = std::numeric_limits<double>::quiet_NaN();

char *put(char *out, std::string_view text) {
  memcpy(out, text.data(), text.size());
  return out + text.size();
}

char *put_value(char *out, const nnt_multitype &v) {
  switch (v.type) {
    case NNT_TYPE_INT32:
      return print_int64(out, v.value.v_int32);
    case NNT_TYPE_UINT32:
      return print_uint64(out, v.value.v_uint32);
    case NNT_TYPE_INT64:
      return print_int64(out, v.value.v_int64);
    case NNT_TYPE_UINT64:
      return print_uint64(out, v.value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return print_double(out, v.value.v_double);
    default:
      return put(out, "null");
  }
}

char *put_count(char *out, const nnt_multitype &v) {
  return print_int64(out, static_cast<int32_t>(v.count));
}

second_order_derivative_t second_order_of(const nnt_part_t *part, uint64_t offset_ms, int location) {
  const auto unknown = static_cast<float>(UNKNOWN);
  second_order_derivative_t result = {unknown, unknown, unknown, unknown};
  if (part) rest_nnt_get_second_order(&result, part, offset_ms, location);
  return result;
}

char *put_all(char *out, const nnt_multitype &v, const second_order_derivative_t &second) {
  out = put_count(put(out, "{\"count\":"), v);
  out = put_value(put(out, ",\"value\":"), v);
  out = print_double(put(out, ",\"stddev\":"), v.stddev);
  out = print_double(put(out, ",\"derivative\":"), v.derivative);
  out = print_double(put(out, ",\"derivative_stddev\":"), v.derivative_stddev);
  out = print_double(put(out, ",\"counter\":"), v.counter);
  out = print_double(put(out, ",\"counter_stddev\":"), v.counter_stddev);
  out = print_double(put(out, ",\"derivative2\":"), second.derivative);
  out = print_double(put(out, ",\"derivative2_stddev\":"), second.derivative_stddev);
  out = print_double(put(out, ",\"counter2\":"), second.counter);
  out = print_double(put(out, ",\"counter2_stddev\":"), second.counter_stddev);
  return put(out, "}");
}

// The parts that are one float.
double number_of(nnt_multitype_part type, const nnt_multitype &v, const nnt_part_t *part, uint64_t offset_ms,
                 int location) {
  switch (type) {
    case NNT_AVERAGE_STDDEV:
      return v.stddev;
    case NNT_DERIVE:
      return v.derivative;
    case NNT_DERIVE_STDDEV:
      return v.derivative_stddev;
    case NNT_COUNTER:
      return v.counter;
    case NNT_COUNTER_STDDEV:
      return v.counter_stddev;
    case NNT_DERIVE2:
      return second_order_of(part, offset_ms, location).derivative;
    case NNT_DERIVE2_STDDEV:
      return second_order_of(part, offset_ms, location).derivative_stddev;
    case NNT_COUNTER2:
      return second_order_of(part, offset_ms, location).counter;
    case NNT_COUNTER2_STDDEV:
      return second_order_of(part, offset_ms, location).counter_stddev;
    case NNT_MIN:
      return v.min;
    case NNT_MAX:
      return v.max;
    case NNT_COUNTER_MIN:
      return v.counter_min;
    case NNT_COUNTER_MAX:
      return v.counter_max;
    case NNT_DERIVE_MIN:
      return v.derivative_min;
    case NNT_DERIVE_MAX:
      return v.derivative_max;
    default:
      krel_fatal("ERROR: BAD TYPE: %d\n", type);
  }
}

// A mean weighted by time, and what its deviation needs.
struct changes_t {
  std::vector<float> values;
  float sum = 0, mean = 0;

  void add(float value, float dt, float total) {
    values.push_back(value);
    sum += value;
    mean = (dt * value + total * mean) / (dt + total);
  }
  float deviation() const {
    const auto n = static_cast<float>(values.size());
    float squares = 0;
    for (const float value : values) squares += (value - sum / n) * (value - sum / n);
    return std::sqrt(squares / n);
  }
};

}  // namespace

int rest_nnt_print_to_buffer(nnt_multitype_part type, char *buffer, size_t buf_size, const nnt_multitype *v,
                             uint64_t offset_ms, uint64_t, const nnt_part_t *part, int location) {
  if (buf_size < REST_NNT_CELL_MAX) krel_fatal("buffer exhausted\n");
  char *end;
  if (v->type < NNT_TYPE_INT32 || v->type > NNT_TYPE_DOUBLE)
    end = put(buffer, "null");
  else if (type == NNT_AVERAGE)
    end = put_value(buffer, *v);
  else if (type == NNT_COUNT)
    end = put_count(buffer, *v);
  else if (type == NNT_ALL)
    end = put_all(buffer, *v, second_order_of(part, offset_ms, location));
  else
    end = print_double(buffer, number_of(type, *v, part, offset_ms, location));
  return static_cast<int>(end - buffer);
}

void rest_nnt_get_second_order(second_order_derivative_t *second_order, const nnt_part_t *part,
                               uint64_t offset_ms, int start) {
  if (!part) {
    krel_log(krel_error, "warning: 'part' null in rest_nnt_get_second_order\n");
    return;
  }
  const int64_t first = int64_t{start} * part->collapse;
  const auto has_data = [&](int64_t i) { return i >= 0 && i < part->count && part->v[i].count > 0; };
  const nnt_multitype *reference = has_data(first) ? &part->v[first] : nullptr;
  auto reference_ms = static_cast<int64_t>(offset_ms) - part->period_ms;
  changes_t derivative, counter;
  float total = 0;
  for (int64_t i = 0; i < part->collapse; i++) {
    if (!has_data(first + 1 + i)) continue;
    const nnt_multitype *cell = &part->v[first + 1 + i];
    const int64_t cell_ms = static_cast<int64_t>(offset_ms) + i * part->period_ms;
    if (reference) {
      const auto dt = static_cast<float>(static_cast<double>(cell_ms - reference_ms) / 1000.0);
      derivative.add((cell->derivative - reference->derivative) / dt, dt, total);
      counter.add((cell->counter - reference->counter) / dt, dt, total);
      total += dt;
    }
    reference = cell;
    reference_ms = cell_ms;
  }
  second_order->derivative = derivative.mean;
  second_order->counter = counter.mean;
  if (derivative.values.size() < 2) return;
  second_order->derivative_stddev = derivative.deviation();
  second_order->counter_stddev = counter.deviation();
}
