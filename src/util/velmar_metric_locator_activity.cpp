// The times at which a metric was active.
#include <algorithm>

#include "platform/krel/base/krel_util.h"
#include "util/oil.h"
#include "util/velmar_metric_locator.h"

static std::atomic<uint64_t> activity_tracking_epoch = 0;  // seconds

void velmar_metric_locator_set_global_active_before(uint64_t seconds) {
  activity_tracking_epoch.store(seconds, std::memory_order_relaxed);
}

static uint32_t to_unit(uint64_t seconds) {
  return static_cast<uint32_t>(std::min<uint64_t>(seconds / LOCATOR_ACTIVITY_UNIT_S, UINT32_MAX));
}

bool velmar_metric_locator_record_activity(velmar_metric_locator_t *ml, uint64_t seconds) {
  if (seconds / LOCATOR_ACTIVITY_UNIT_S > UINT32_MAX) return false;  // no time that a list could hold
  const uint32_t unit = to_unit(seconds);
  const spinlock_guard_c guard(ml->activity_oil_lock);
  if (!ml->activity_oil) ml->activity_oil = oil_alloc();
  return oil_put(ml->activity_oil, unit, unit);
}

static bool active_between(const velmar_metric_locator_t *ml, uint64_t start, uint64_t end)
    REQUIRES(ml->activity_oil_lock) {
  if (activity_tracking_epoch.load(std::memory_order_relaxed) > start) return true;
  return oil_range_contains(ml->activity_oil, to_unit(start), to_unit(end), nullptr);
}

bool velmar_metric_locator_was_active(const velmar_metric_locator_t *ml, uint64_t start, uint64_t end) {
  if (!ml) return false;
  if (start == 0 && end == 0) return true;
  if (start > end) return false;
  const spinlock_guard_c guard(ml->activity_oil_lock);
  return active_between(ml, start, end);
}

bool velmar_metric_locator_is_active_at(const velmar_metric_locator_t *ml, uint64_t now_ms) {
  constexpr uint64_t DAY_MS = 86400000;
  if (!ml || now_ms < DAY_MS) return false;
  const spinlock_guard_c guard(ml->activity_oil_lock);
  return ml->activity_oil && active_between(ml, (now_ms - DAY_MS) / 1000, now_ms / 1000);
}

bool velmar_metric_locator_is_active(const velmar_metric_locator_t *ml) {
  return velmar_metric_locator_is_active_at(ml, krel_now_ms());
}

// Puts a list that nobody else holds in place of the old.
static void replace_activity(velmar_metric_locator_t *ml, oil_ptr list) {
  oil_ptr old;  // freed when the lock is open again
  const spinlock_guard_c guard(ml->activity_oil_lock);
  old.reset(ml->activity_oil);
  ml->activity_oil = list.release();
}

void velmar_metric_locator_set_activity(velmar_metric_locator_t *ml, const oil_list_t *list) {
  replace_activity(ml, oil_ptr(oil_clone(list)));
}

oil_list_t *velmar_metric_locator_get_activity_clone(const velmar_metric_locator_t *ml) {
  const spinlock_guard_c guard(ml->activity_oil_lock);
  return oil_clone(ml->activity_oil);
}

int oil_merge_inplace(velmar_metric_locator_t *locator, const oil_list_t *source) NO_THREAD_SAFETY_ANALYSIS {
  if (!locator->activity_oil) locator->activity_oil = oil_alloc();
  return oil_merge_inplace(locator->activity_oil, source);
}

bool velmar_metric_locator_merge_oil(velmar_metric_locator_t *ml, const oil_list_t *list) {
  if (!list) return false;
  const spinlock_guard_c guard(ml->activity_oil_lock);
  return oil_merge_inplace(ml, list) > 0;
}

// A pair of times in seconds that a list can hold.
static bool read_range(const krel_json_object *pair, uint64_t range[2]) {
  if (!krel_json_object_is_type(pair, krel_json_type_array) || krel_json_object_array_length(pair) != 2)
    return false;
  for (size_t i = 0; i < 2; i++) {
    const krel_json_object *time = krel_json_object_array_get_idx(pair, i);
    if (!krel_json_object_is_type(time, krel_json_type_int) || krel_json_object_get_int64(time) < 0)
      return false;
    range[i] = krel_json_object_get_uint64(time);
    if (range[i] / LOCATOR_ACTIVITY_UNIT_S > UINT32_MAX) return false;
  }
  return true;
}

bool velmar_metric_locator_set_activity_from_json(velmar_metric_locator_t *ml, const krel_json_object *json) {
  if (!krel_json_object_is_type(json, krel_json_type_array)) return false;
  oil_ptr list(oil_alloc());
  for (size_t i = 0; i < krel_json_object_array_length(json); i++) {
    uint64_t range[2];
    if (read_range(krel_json_object_array_get_idx(json, i), range))
      oil_put(list.get(), to_unit(range[0]), to_unit(range[1]));
  }
  replace_activity(ml, std::move(list));
  return true;
}

std::string velmar_metric_locator_oil_dump(const velmar_metric_locator_t *ml) {
  const spinlock_guard_c guard(ml->activity_oil_lock);
  return oil_dump(ml->activity_oil);
}
