#include "libvelmar/nnt/nnt_lanes.h"

#include <cmath>
#include <cstring>

namespace {

using float4_t = float __attribute__((vector_size(16)));
using int4_t = int32_t __attribute__((vector_size(16)));
using uint4_t = uint32_t __attribute__((vector_size(16)));

// Four doubles as the processor holds them: in two registers or in one.
struct doubles2_t {
  using vector_t = double __attribute__((vector_size(16)));
  static constexpr int PARTS = 2, WIDTH = 2;
  vector_t part[2];
};
struct doubles4_t {
  using vector_t = double __attribute__((vector_size(32)));
  static constexpr int PARTS = 1, WIDTH = 4;
  vector_t part[1];
};

// Everything here is inlined into the function that names the instruction set.
template <typename D, typename F>
[[gnu::always_inline]] inline D each(const F &f) {
  D result;
  for (int i = 0; i < D::PARTS; i++) f(&result.part[i], i);
  return result;
}

template <typename D, typename V>
[[gnu::always_inline]] inline D widen(const V &v) {
  D result;
  if constexpr (D::PARTS == 1) {
    result.part[0] = __builtin_convertvector(v, doubles4_t::vector_t);
  } else {
    result.part[0] = __builtin_convertvector(__builtin_shufflevector(v, v, 0, 1), doubles2_t::vector_t);
    result.part[1] = __builtin_convertvector(__builtin_shufflevector(v, v, 2, 3), doubles2_t::vector_t);
  }
  return result;
}

template <typename D>
[[gnu::always_inline]] inline float4_t narrow(const D &v) {
  if constexpr (D::PARTS == 1) {
    return __builtin_convertvector(v.part[0], float4_t);
  } else {
    using half_t = float __attribute__((vector_size(8)));
    return __builtin_shufflevector(__builtin_convertvector(v.part[0], half_t),
                                   __builtin_convertvector(v.part[1], half_t), 0, 1, 2, 3);
  }
}

template <typename V>
[[gnu::always_inline]] inline V load(const void *from) {
  V v;
  memcpy(&v, from, sizeof v);
  return v;
}

template <typename V>
[[gnu::always_inline]] inline void store(void *to, const V &v) {
  memcpy(to, &v, sizeof v);
}

template <typename D>
[[gnu::always_inline]] inline void fold_value(nnt_lanes_t *lanes, double value) {
  using vector_t = typename D::vector_t;
  const auto counts = load<uint4_t>(lanes->count);
  const auto stddev = load<float4_t>(lanes->stddev);
  const D count = widen<D>(reinterpret_cast<int4_t>(counts)), square = widen<D>(stddev * stddev),
          old = load<D>(lanes->mean);
  const double squared = value * value;
  const D mean = each<D>([&](vector_t * out, int i) __attribute__((always_inline)) {
    *out = (count.part[i] * old.part[i] + value) / (count.part[i] + 1.0);
  });
  const D deviation = each<D>([&](vector_t * out, int i) __attribute__((always_inline)) {
    const vector_t moment = count.part[i] * (old.part[i] * old.part[i] + square.part[i]) + squared;
    const vector_t variance = moment / (count.part[i] + 1.0) - mean.part[i] * mean.part[i];
    // NaN gives 0, as what is negative does
    const vector_t positive = variance > 0.0 ? variance : vector_t{};
    for (int k = 0; k < D::WIDTH; k++) (*out)[k] = std::sqrt(positive[k]);
  });
  store(lanes->mean, mean);
  store(lanes->stddev, narrow(deviation));
  store(lanes->count, counts + 1);
}

template <typename D>
[[gnu::always_inline]] inline void fold_rate(float *rates, int32_t *runs, double rate, int32_t run) {
  using vector_t = typename D::vector_t;
  const auto old_run = load<uint4_t>(runs), new_run = old_run + static_cast<uint32_t>(run);
  const auto old = load<float4_t>(rates);
  const D weight = widen<D>(reinterpret_cast<int4_t>(old_run)), value = widen<D>(old);
  const D total = widen<D>(reinterpret_cast<int4_t>(new_run));
  const double grown = run * rate;
  const D sum = each<D>([&](vector_t * out, int i)
                            __attribute__((always_inline)) { *out = weight.part[i] * value.part[i] + grown; });
  const D rounded = widen<D>(narrow(sum));
  const D quotient = each<D>([&](vector_t * out, int i)
                                 __attribute__((always_inline)) { *out = rounded.part[i] / total.part[i]; });
  const auto fresh = static_cast<float>(rate);
  const int4_t is_first = (old_run == 0) | (old != old), is_void = new_run == 0;
  const float4_t next = is_first ? float4_t{fresh, fresh, fresh, fresh} : narrow(quotient);
  store(rates, is_void ? old : next);
  store(runs, new_run);
}

template <typename D>
[[gnu::always_inline]] inline void fold(nnt_lanes_t *groups, size_t count, const nnt_step_t &step) {
  for (size_t g = 0; g < count; g++) {
    fold_value<D>(&groups[g], step.value);
    if (step.run) fold_rate<D>(groups[g].derivative, groups[g].drun, step.rate, step.run);
    if (step.is_increase) fold_rate<D>(groups[g].counter, groups[g].crun, step.rate, step.run);
  }
}

void fold_baseline(nnt_lanes_t *groups, size_t count, const nnt_step_t &step) {
  fold<doubles2_t>(groups, count, step);
}

#if defined(__x86_64__)
// without fma: a fused multiply and add would round differently
[[gnu::target("avx2")]] void fold_avx2(nnt_lanes_t *groups, size_t count, const nnt_step_t &step) {
  fold<doubles4_t>(groups, count, step);
}
#endif

}  // namespace

nnt_lanes_fold_t nnt_lanes_fold_baseline() {
  return fold_baseline;
}

nnt_lanes_fold_t nnt_lanes_fold() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) return fold_avx2;
#endif
  return fold_baseline;
}
