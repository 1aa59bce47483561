#pragma once
// Random samples with everything that is hard about them, and cells compared to the last bit.

#include <cmath>
#include <cstring>
#include <iomanip>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "libvelmar/nnt/nnt_multitype.h"

inline metric_value_t sample_of(uint64_t ms, velmar_metric_type_t type, uint64_t bits) {
  metric_value_t value{};
  value.whence_ms = ms;
  value.type = type;
  value.storage.v_uint64 = bits;
  return value;
}
inline metric_value_t sample_n(uint64_t ms, double number) {
  metric_value_t value = sample_of(ms, VELMAR_METRIC_DOUBLE, 0);
  value.storage.v_double = number;
  return value;
}
inline metric_value_t sample_L(uint64_t ms, uint64_t number) {
  return sample_of(ms, VELMAR_METRIC_UINT64, number);
}
inline metric_value_t sample_l(uint64_t ms, int64_t number) {
  return sample_of(ms, VELMAR_METRIC_INT64, static_cast<uint64_t>(number));
}

inline uint64_t bits_of(double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  return bits;
}

// Any NaN counts as the same.
inline bool same_float(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || memcmp(&a, &b, sizeof a) == 0;
}

inline bool same_cell(const nnt_multitype &a, const nnt_multitype &b) {
  const bool nan_values = a.type == NNT_TYPE_DOUBLE && b.type == NNT_TYPE_DOUBLE &&
                          std::isnan(a.value.v_double) && std::isnan(b.value.v_double);
  return a.type == b.type && a.count == b.count && a.stddev_present == b.stddev_present &&
         same_float(a.stddev, b.stddev) && (nan_values || a.value.v_uint64 == b.value.v_uint64) &&
         same_float(a.min, b.min) && same_float(a.max, b.max) && same_float(a.derivative, b.derivative) &&
         same_float(a.derivative_stddev, b.derivative_stddev) &&
         same_float(a.derivative_min, b.derivative_min) && same_float(a.derivative_max, b.derivative_max) &&
         same_float(a.counter, b.counter) && same_float(a.counter_stddev, b.counter_stddev) &&
         same_float(a.counter_min, b.counter_min) && same_float(a.counter_max, b.counter_max);
}

inline std::string show_cell(const nnt_multitype &c) {
  std::ostringstream out;
  out << "type " << c.type << " count " << c.count << " present " << int{c.stddev_present}
      << std::setprecision(9) << " stddev " << c.stddev << " value " << std::hex << c.value.v_uint64 << std::dec
      << " derivative " << c.derivative << " " << c.derivative_stddev << " counter " << c.counter << " "
      << c.counter_stddev << " min " << c.min;
  return out.str();
}

class samples_c {
 public:
  explicit samples_c(uint32_t seed) : m_random(seed), m_kind(pick(6)), m_step_ms(STEPS[pick(5)]) {}

  // Samples in order of time from start_ms on, up to end_ms.
  std::vector<metric_value_t> make(uint64_t start_ms, uint64_t end_ms, size_t most) {
    std::vector<metric_value_t> result;
    for (uint64_t t = start_ms + pick(m_step_ms); t < end_ms && result.size() < most; t += advance())
      result.push_back(next(t));
    return result;
  }
  uint32_t pick(uint64_t n) { return static_cast<uint32_t>(m_random() % n); }

 private:
  static constexpr uint64_t STEPS[] = {1, 250, 10'000, 60'000, 3'700'000};

  uint64_t advance() {
    switch (pick(40)) {
      case 0:
        return 0;
      case 1:
        return m_step_ms * pick(200);
      case 2:
        return pick(30) ? m_step_ms : 25ULL * 86'400'000;  // more than an int holds
      default:
        return m_step_ms;
    }
  }
  metric_value_t next(uint64_t t) {
    static constexpr velmar_metric_type_t TYPES[] = {VELMAR_METRIC_INT32, VELMAR_METRIC_UINT32,
                                                     VELMAR_METRIC_INT64, VELMAR_METRIC_UINT64,
                                                     VELMAR_METRIC_DOUBLE};
    metric_value_t value;
    switch (m_kind) {
      case 0:  // a counter that starts again now and then
        m_level = pick(50) ? m_level + pick(1000) : 0;
        value = sample_L(t, m_level);
        break;
      case 1:
        value = sample_n(t, std::sin(static_cast<double>(t)) * 1000);
        break;
      case 2:
        value = sample_l(t, static_cast<int64_t>(pick(100)) - 50);
        break;
      case 3:  // any type, any bits, infinities and NaN too
        value = sample_of(t, TYPES[pick(5)], m_random());
        break;
      case 4:
        value = sample_of(t, TYPES[pick(5)], EXTREMES[pick(std::size(EXTREMES))]);
        break;
      default:
        value = sample_n(t, DOUBLES[pick(std::size(DOUBLES))]);
    }
    value.is_null = pick(30) == 0;
    return value;
  }

  static constexpr uint64_t EXTREMES[] = {
      0,          1,          UINT64_MAX, 1ULL << 63,       INT64_MAX,          INT32_MAX,
      1ULL << 31, UINT32_MAX, 1ULL << 53, (1ULL << 53) + 1, 0x8000000000000001, 5};
  static constexpr double DOUBLES[] = {0.0,    -0.0,    1.5,    -3,  1e308, -1e308, 5e-324,  0x1p63,
                                       0x1p64, -0x1p63, 1e-300, 0.1, 1e20,  -1e20,  16777217};
  std::mt19937_64 m_random;
  uint32_t m_kind;
  uint64_t m_step_ms, m_level = 0;
};
