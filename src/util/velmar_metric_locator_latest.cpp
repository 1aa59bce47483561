// The latest values of a metric.
#include <memory>

#include "platform/krel/base/krel_memory.h"
#include "platform/tolvllhist/tolvllhist.h"
#include "util/velmar_metric_locator.h"

#include <cstring>

std::atomic<uint64_t> velmar_metric_locator_future_bound = UINT64_MAX;
std::atomic<bool> velmar_metric_locator_implicit_latest = false;

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

// The cache, made when it is absent and wanted; null when it is not.
template <typename T>
T *cache_of(std::atomic<T *> &place, spinlock_c &lock, bool instantiate) {
  T *cache = place.load(std::memory_order_acquire);
  if (cache || !(instantiate || velmar_metric_locator_implicit_latest.load(relaxed))) return cache;
  auto made = std::make_unique<T>();
  const spinlock_guard_c guard(lock);
  cache = place.load(relaxed);
  if (!cache) place.store(cache = made.release(), std::memory_order_release);
  return cache;
}

void store_sample(last_two_numeric_t *last, int index, uint64_t whence_ms, velmar_metric_type_t type,
                  velmar_metric_locator_numeric_value_t value) {
  last->whence_ms[index].store(whence_ms, relaxed);
  last->type[index] = type;
  last->value[index] = value;
}

// Takes the text over if it is newer than the cached one. Text and histogram caches differ in a name only.
template <typename T>
void store_text(T *last, char *T::*text, spinlock_c &lock, uint64_t whence_ms, const char *fresh) {
  const krel_memory_section_c section;
  if (last->whence_ms.load(relaxed) >= whence_ms) return;
  char *unused = fresh ? krel_memory_safe_strdup(fresh) : nullptr;
  {
    const spinlock_guard_c guard(lock);
    if (last->whence_ms.load(relaxed) < whence_ms) {
      last->whence_ms.store(whence_ms, relaxed);
      std::swap(last->*text, unused);
    }
  }
  krel_memory_safe_free(unused);
}

template <typename T>
bool read_text(const std::atomic<T *> &place, char *T::*text, spinlock_c &lock, uint64_t *whence_ms,
               const char **out) {
  krel_assert(krel_memory_in_cs());
  const T *last = place.load(std::memory_order_acquire);
  if (!last) return false;
  const spinlock_guard_c guard(lock);
  *whence_ms = last->whence_ms.load(relaxed);
  *out = last->*text;
  return true;
}

}  // namespace

void velmar_metric_locator_update_numeric(velmar_metric_locator_t *ml, uint64_t whence_ms,
                                          velmar_metric_type_t type,
                                          const velmar_metric_locator_numeric_value_t *value,
                                          bool instantiate) {
  last_two_numeric_t *last = cache_of(ml->last_n, ml->last_update_lock, instantiate);
  if (!last || whence_ms > velmar_metric_locator_future_bound.load(relaxed)) return;
  // A sample at the newest time is dropped, and so is one that is older than both.
  if (whence_ms == last->whence_ms[1].load(relaxed) || whence_ms <= last->whence_ms[0].load(relaxed)) return;
  const spinlock_guard_c guard(ml->last_update_lock);
  const uint64_t newest = last->whence_ms[1].load(relaxed);
  if (newest < whence_ms) {
    store_sample(last, 0, newest, last->type[1], last->value[1]);
    store_sample(last, 1, whence_ms, type, *value);
  } else if (newest > whence_ms && last->whence_ms[0].load(relaxed) <= whence_ms) {
    store_sample(last, 0, whence_ms, type, *value);
  }
}

void velmar_metric_locator_update_text(velmar_metric_locator_t *ml, uint64_t whence_ms, const char *text,
                                       bool instantiate) {
  if (last_text_t *last = cache_of(ml->last_t, ml->last_update_lock, instantiate))
    store_text(last, &last_text_t::value, ml->last_update_lock, whence_ms, text);
}

void velmar_metric_locator_update_hist(velmar_metric_locator_t *ml, uint64_t whence_ms, const char *b64,
                                       bool instantiate) {
  velmar_metric_locator_update_hist_withstream(ml, whence_ms, b64, instantiate, krel_debug);
}

void velmar_metric_locator_update_hist_withstream(velmar_metric_locator_t *ml, uint64_t whence_ms,
                                                  const char *b64, bool instantiate,
                                                  krel_log_stream_t *stream) {
  last_hist_t *last = cache_of(ml->last_h, ml->last_update_lock, instantiate);
  krel_log(stream, "%s: metric %s, whence %llu, %s\n", __func__, ml->immutable->key_mem,
           static_cast<unsigned long long>(whence_ms), last ? "cached" : "no cache");
  if (last) store_text(last, &last_hist_t::serialized_value, ml->last_update_lock, whence_ms, b64);
}

bool velmar_metric_locator_last2_numeric(const velmar_metric_locator_t *ml, uint64_t whence_ms[2],
                                         velmar_metric_type_t type[2],
                                         velmar_metric_locator_numeric_value_t value[2]) {
  const last_two_numeric_t *last = ml->last_n.load(std::memory_order_acquire);
  if (!last) return false;
  const spinlock_guard_c guard(ml->last_update_lock);
  for (int i = 0; i < 2; i++) {
    whence_ms[i] = last->whence_ms[i].load(relaxed);
    type[i] = last->type[i];
    value[i] = last->value[i];
  }
  return true;
}

bool velmar_metric_locator_last_text(const velmar_metric_locator_t *ml, uint64_t *whence_ms,
                                     const char **text) {
  return read_text(ml->last_t, &last_text_t::value, ml->last_update_lock, whence_ms, text);
}

bool velmar_metric_locator_last_hist_b64(const velmar_metric_locator_t *ml, uint64_t *whence_ms,
                                         const char **b64) {
  return read_text(ml->last_h, &last_hist_t::serialized_value, ml->last_update_lock, whence_ms, b64);
}

bool velmar_metric_locator_last_hist(const velmar_metric_locator_t *ml, uint64_t *whence_ms,
                                     histogram_t **histogram) {
  const krel_memory_section_c section;  // keeps the text while it is decoded, outside the lock
  const char *b64 = nullptr;
  if (!velmar_metric_locator_last_hist_b64(ml, whence_ms, &b64)) {
    krel_log(krel_debug, "Last hist, metric %s, no last found\n", ml->immutable->key_mem);
    return false;
  }
  *histogram = nullptr;
  if (!b64) return true;
  histogram_t *decoded = hist_alloc();
  if (hist_deserialize_b64(decoded, b64, strlen(b64)) >= 0)
    *histogram = decoded;
  else
    hist_free(decoded);
  return true;
}

// One locator's lock at a time: comparisons in both directions may run at once.
int velmar_metric_locator_compare_last2_numeric(const velmar_metric_locator_t *a,
                                                const velmar_metric_locator_t *b) {
  if (a == b) return 0;
  uint64_t of_a[2], of_b[2];
  velmar_metric_type_t types[2];
  velmar_metric_locator_numeric_value_t values[2];
  const bool has_a = velmar_metric_locator_last2_numeric(a, of_a, types, values);
  const bool has_b = velmar_metric_locator_last2_numeric(b, of_b, types, values);
  if (!has_a || !has_b) return has_b - has_a;
  for (int i = 1; i >= 0; i--)
    if (of_a[i] != of_b[i]) return of_a[i] < of_b[i] ? 1 : -1;
  return 0;
}

uint16_t velmar_metric_locator_last_missing(const velmar_metric_locator_t *ml) {
  unsigned missing = 0;
  if (!ml->last_t.load(relaxed)) missing |= METRIC_TYPE_TEXT;
  if (!ml->last_h.load(relaxed)) missing |= METRIC_TYPE_HISTOGRAM;
  if (!ml->last_n.load(relaxed)) missing |= METRIC_TYPE_NUMERIC;
  return static_cast<uint16_t>(missing & velmar_metric_locator_get_type(ml));
}
