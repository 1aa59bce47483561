#include "platform/krel/base/krel_hyperloglog.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <memory>
#include <string_view>
#include <vector>

struct krel_hyperloglog_t {
  explicit krel_hyperloglog_t(int precision) : m_precision(precision), m_registers(size_t{1} << precision) {}
  int m_precision;
  std::vector<std::atomic<uint8_t>> m_registers;  // the longest run of zero bits seen, plus 1
};

namespace {

// Finishes a hash so that each of its bits depends on every bit before.
uint64_t mix(uint64_t x) {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

// The series of O. Ertl, "New cardinality estimation algorithms for HyperLogLog sketches" (2017), which
// are exact enough at every size: no bias table, no switch to counting zeroes.
double sigma(double x) {
  double y = 1, z = x, last;
  do {
    x *= x;
    last = z;
    z += x * y;
    y += y;
  } while (z != last);
  return z;
}

double tau(double x) {
  if (x == 0 || x == 1) return 0;
  double y = 1, z = 1 - x, last;
  do {
    x = std::sqrt(x);
    last = z;
    y *= 0.5;
    z -= (1 - x) * (1 - x) * y;
  } while (z != last);
  return z / 3;
}

}  // namespace

krel_hyperloglog_t *krel_hyperloglog_alloc(int precision) {
  return std::make_unique<krel_hyperloglog_t>(std::clamp(precision, 4, 18)).release();
}

void krel_hyperloglog_add(krel_hyperloglog_t *hll, const void *bytes, size_t length) {
  const uint64_t hash = mix(std::hash<std::string_view>()({static_cast<const char *>(bytes), length}));
  std::atomic<uint8_t> &at = hll->m_registers[hash >> (64 - hll->m_precision)];
  // The bit behind the hash's last bounds the run.
  const uint64_t rest = hash << hll->m_precision | uint64_t{1} << (hll->m_precision - 1);
  const auto run = static_cast<uint8_t>(std::countl_zero(rest) + 1);
  uint8_t have = at.load(std::memory_order_relaxed);
  while (have < run && !at.compare_exchange_weak(have, run, std::memory_order_relaxed)) {
  }
}

uint64_t krel_hyperloglog_size(const krel_hyperloglog_t *hll) {
  const int longest = 64 - hll->m_precision;
  const auto registers = static_cast<double>(hll->m_registers.size());
  std::vector<double> count(static_cast<size_t>(longest) + 2);
  for (const auto &value : hll->m_registers) ++count[value.load(std::memory_order_relaxed)];
  if (count[0] == registers) return 0;
  double z = registers * tau(1 - count[static_cast<size_t>(longest) + 1] / registers);
  for (size_t k = static_cast<size_t>(longest); k >= 1; --k) z = 0.5 * (z + count[k]);
  z += registers * sigma(count[0] / registers);
  return static_cast<uint64_t>(std::llround(registers * registers / (2 * std::log(2.0)) / z));
}

void krel_hyperloglog_destroy(krel_hyperloglog_t *hll) {
  std::unique_ptr<krel_hyperloglog_t>{hll};
}
