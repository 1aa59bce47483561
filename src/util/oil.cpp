#include "util/oil.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fmt/format.h>

#include "platform/krel/base/krel_log.h"

namespace {

// A bound may be stored at the seek level while readers run.
uint32_t get(const uint32_t &bound) {
  return __atomic_load_n(&bound, __ATOMIC_RELAXED);
}
void set(uint32_t &bound, uint32_t value) {
  __atomic_store_n(&bound, value, __ATOMIC_RELAXED);
}

// Where a unit stands: in interval `index`, or in the gap behind it (-1: before all).
struct place_t {
  int64_t index;
  bool inside;
  bool operator==(const place_t &) const = default;
};

place_t search(const oil_list_t *list, uint32_t value) REQUIRES_SHARED(list->lock) {
  const oil_interval_t *entries = list->entries;
  const int64_t tail = static_cast<int64_t>(list->size) - 1;
  if (tail < 0 || value < get(entries[0].first)) return {-1, false};
  if (value <= get(entries[0].last)) return {0, true};
  if (value >= get(entries[tail].first)) return {tail, value <= get(entries[tail].last)};
  int64_t low = 0, high = tail;
  while (high - low > 1) {
    const int64_t middle = (low + high) / 2;
    (get(entries[middle].first) <= value ? low : high) = middle;
  }
  return {low, value <= get(entries[low].last)};
}

// Makes room at `position`; the exclusive level is held.
void expand_locked(oil_list_t *list, uint32_t position) REQUIRES(list->lock) {
  if (list->size == list->capacity) {
    const uint32_t old = list->capacity;
    const uint32_t capacity = old == 1 ? 2 : old == 2 ? 8 : old <= 8 ? 16 : old + 16;
    const bool inlined = list->entries == &list->single;
    void *entries = realloc(inlined ? nullptr : list->entries, capacity * sizeof(oil_interval_t));
    if (!entries) krel_fatal("out of memory for %u activity intervals\n", capacity);
    list->entries = static_cast<oil_interval_t *>(entries);
    if (inlined) list->entries[0] = list->single;
    list->capacity = capacity;
  }
  oil_interval_t *at = list->entries + position;
  memmove(at + 1, at, (list->size - position) * sizeof *at);
  list->size++;
}

void insert_entry_locked(oil_list_t *list, uint32_t position, oil_interval_t interval, bool exclusive_held)
    REQUIRES(list->lock) {
  if (!exclusive_held) list->lock.upgrade();
  expand_locked(list, position);
  list->entries[position] = interval;
  if (!exclusive_held) list->lock.downgrade();
}

// [first, last] lies in the gap in front of entry `position`: a near neighbour is widened, else it gets an
// entry of its own.
void oil_insert_at_locked(oil_list_t *list, uint32_t first, uint32_t last, uint32_t position,
                          bool exclusive_held) REQUIRES(list->lock) {
  oil_interval_t *next = list->entries + position;
  if (position < list->size && next->first - last <= OIL_SLACK)
    set(next->first, first);
  else if (position > 0 && first - next[-1].last <= OIL_SLACK)
    set(next[-1].last, last);
  else
    insert_entry_locked(list, position, {first, last}, exclusive_held);
}

// A put that begins before the tail and touches some interval, or crosses one.
bool put_across_locked(oil_list_t *list, uint32_t first, uint32_t last, place_t from, bool exclusive_held)
    REQUIRES(list->lock) {
  const uint32_t limit = last > UINT32_MAX - OIL_SLACK - 1 ? UINT32_MAX : last + OIL_SLACK + 1;
  bool changed = false;
  uint32_t at = static_cast<uint32_t>(std::max<int64_t>(from.index, 0));
  if (from.index < 0 && limit >= list->entries[0].first) {
    set(list->entries[0].first, first);
    changed = true;
  }
  // What is left to cover begins at `cur`; no more than the end of the range of units can be left.
  uint64_t cur = from.index >= 0 && !from.inside ? first : uint64_t{list->entries[at].last} + 1;
  while (cur <= last && list->entries[at].last < last) {
    const bool near = at + 1 < list->size && limit >= list->entries[at + 1].first;
    if (!near) {
      oil_insert_at_locked(list, static_cast<uint32_t>(cur), last, at + 1, exclusive_held);
      return true;
    }
    oil_interval_t &next = list->entries[++at];
    if (cur < next.first) {
      set(next.first, static_cast<uint32_t>(cur));
      changed = true;
    }
    cur = uint64_t{next.last} + 1;
  }
  return changed;
}

std::vector<oil_interval_t> snapshot(const oil_list_t *list) {
  const progressive_read_guard_c guard(list->lock);
  std::vector<oil_interval_t> intervals(list->size);
  for (uint32_t i = 0; i < list->size; i++)
    intervals[i] = {get(list->entries[i].first), get(list->entries[i].last)};
  return intervals;
}

}  // namespace

oil_list_t *oil_alloc() {
  return oil_alloc_cap(1);
}

oil_list_t *oil_alloc_cap(uint32_t capacity) {
  auto list = std::make_unique<oil_list_t>();
  list->capacity = std::max(capacity, 1U);
  list->entries = &list->single;
  if (capacity > 1) {
    list->entries = static_cast<oil_interval_t *>(malloc(capacity * sizeof(oil_interval_t)));
    if (!list->entries) krel_fatal("out of memory for %u activity intervals\n", capacity);
  }
  return list.release();
}

oil_list_t *oil_clone(const oil_list_t *list) {
  if (!list) return nullptr;
  const std::vector<oil_interval_t> intervals = snapshot(list);
  oil_list_t *copy = oil_alloc_cap(static_cast<uint32_t>(intervals.size()));
  std::copy(intervals.begin(), intervals.end(), copy->entries);
  copy->size = static_cast<uint32_t>(intervals.size());
  return copy;
}

void oil_free(oil_list_t *list) {
  const std::unique_ptr<oil_list_t> owned(list);
  if (list && list->entries != &list->single) free(list->entries);
}

uint32_t oil_size(const oil_list_t *list) {
  if (!list) return 0;
  const progressive_read_guard_c guard(list->lock);
  return list->size;
}

uint32_t oil_capacity(const oil_list_t *list) {
  if (!list) return 0;
  const progressive_read_guard_c guard(list->lock);
  return list->capacity;
}

bool oil_put(oil_list_t *list, uint32_t first, uint32_t last) {
  list->lock.seek_lock();
  const bool changed = oil_put_locked(list, first, last, false);
  list->lock.seek_unlock();
  return changed;
}

bool oil_put_locked(oil_list_t *list, uint32_t first, uint32_t last, bool exclusive_held) {
  if (first > last || (first == 0 && last == 0)) return false;
  if (list->size == 0) {
    insert_entry_locked(list, 0, {first, last}, exclusive_held);
    return true;
  }
  oil_interval_t &tail = list->entries[list->size - 1];
  if (first > tail.last && first - tail.last > OIL_SLACK) {
    insert_entry_locked(list, list->size, {first, last}, exclusive_held);
    return true;
  }
  if (first >= tail.first) {  // in the tail or up to the slack behind it: the gap joins
    if (last <= tail.last) return false;
    set(tail.last, last);
    return true;
  }
  const place_t from = search(list, first), to = search(list, last);
  if (!from.inside && from == to) {
    oil_insert_at_locked(list, first, last, static_cast<uint32_t>(from.index + 1), exclusive_held);
    return true;
  }
  return put_across_locked(list, first, last, from, exclusive_held);
}

bool oil_epoch_apoc(const oil_list_t *list, uint32_t *first, uint32_t *last) {
  if (!list) return false;
  const progressive_read_guard_c guard(list->lock);
  if (list->size == 0) return false;
  *first = get(list->entries[0].first);
  *last = get(list->entries[list->size - 1].last);
  return true;
}

bool oil_find(const oil_list_t *list, uint32_t value, uint32_t *index) {
  if (!list) return false;
  const progressive_read_guard_c guard(list->lock);
  const place_t place = search(list, value);
  if (place.inside && index) *index = static_cast<uint32_t>(place.index);
  return place.inside;
}

bool oil_range_contains(const oil_list_t *list, uint32_t first, uint32_t last, uint32_t *index) {
  if (!list || first > last) return false;
  const progressive_read_guard_c guard(list->lock);
  const place_t from = search(list, first), to = search(list, last);
  if (!from.inside && from == to) return false;
  if (index) *index = static_cast<uint32_t>(from.index + (from.inside ? 0 : 1));
  return true;
}

bool oil_exact_match(const oil_list_t *a, const oil_list_t *b) {
  if (a == b) return true;
  const std::vector<oil_interval_t> of_a = a ? snapshot(a) : std::vector<oil_interval_t>();
  const std::vector<oil_interval_t> of_b = b ? snapshot(b) : std::vector<oil_interval_t>();
  return std::equal(
      of_a.begin(), of_a.end(), of_b.begin(), of_b.end(),
      [](const oil_interval_t &x, const oil_interval_t &y) { return x.first == y.first && x.last == y.last; });
}

// The source is read first and let go, so that two lists merged into each other cannot wait for each other.
int oil_merge_inplace(oil_list_t *target, const oil_list_t *source) {
  if (!source) return 0;
  if (source == target) {
    krel_log(krel_error, "warning: oil_merge_inplace - src (%p) == dst (%p) - size %d\n",
             static_cast<const void *>(source), static_cast<void *>(target),
             static_cast<int>(oil_size(source)));
    return 0;
  }
  int changes = 0;
  const std::vector<oil_interval_t> intervals = snapshot(source);
  target->lock.write_lock();
  for (const oil_interval_t &interval : intervals)
    changes += oil_put_locked(target, interval.first, interval.last, true);
  target->lock.write_unlock();
  return changes;
}

void oil_iter(const oil_list_t *list, oil_iter_fn callback, void *closure) {
  if (!list) return;
  const progressive_read_guard_c guard(list->lock);
  for (uint32_t i = 0; i < list->size; i++) {
    const oil_interval_t interval = {get(list->entries[i].first), get(list->entries[i].last)};
    callback(&interval, closure);
  }
}

std::string oil_dump(const oil_list_t *list) {
  const void *entries = nullptr;
  if (list) {
    const progressive_read_guard_c guard(list->lock);
    entries = list->entries;
  }
  std::string text = fmt::format("OIL [{}] size[{}] cap[{}] entries[{}][", fmt::ptr(list), oil_size(list),
                                 oil_capacity(list), entries);
  oil_iter(list, [&text](const oil_interval_t &interval) {
    text += fmt::format("({},{})", interval.first, interval.last);
  });
  return text + "]";
}

bool oil_valid(const oil_list_t *list) {
  if (!list) return true;
  const std::vector<oil_interval_t> intervals = snapshot(list);
  for (size_t i = 0; i < intervals.size(); i++) {
    if (intervals[i].first > intervals[i].last) return false;
    if (i > 0 && intervals[i].first <= intervals[i - 1].last) return false;
  }
  return true;
}
