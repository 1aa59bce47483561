#pragma once
// Activity intervals: a sorted list of inclusive intervals of 32-bit units (of 300 seconds, for a metric).
// Made for a steady stream of puts at the end; a gap of up to OIL_SLACK units there is closed over.
//
// Every operation locks the list itself; all but oil_free may run from any thread at any time. A null list
// counts as an empty one where a list is only read.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "util/progressive_lock.h"

struct velmar_metric_locator_t;

constexpr uint32_t OIL_SLACK = 96;

struct oil_interval_t {
  uint32_t first;  // both inclusive
  uint32_t last;
};

// Sorted by first and by last; no two intervals overlap, some may adjoin. size and entries change at the
// exclusive level, a single first or last by one store at the seek level.
struct oil_list_t {
  uint32_t size;
  uint32_t capacity;
  oil_interval_t *entries;  // of one interval: &single
  mutable progressive_lock_c lock;
  oil_interval_t single;  // a steady metric needs no more
};

oil_list_t *oil_alloc();                        // capacity 1
oil_list_t *oil_alloc_cap(uint32_t capacity);   // at least 1
oil_list_t *oil_clone(const oil_list_t *list);  // null of null
void oil_free(oil_list_t *list);                // null is allowed; nobody else may hold the list

struct oil_free_t {
  void operator()(oil_list_t *list) const { oil_free(list); }
};
using oil_ptr = std::unique_ptr<oil_list_t, oil_free_t>;

uint32_t oil_size(const oil_list_t *list);
uint32_t oil_capacity(const oil_list_t *list);

// Adds [first, last]; true when the list changed. Nothing happens when first > last or both are 0.
bool oil_put(oil_list_t *list, uint32_t first, uint32_t last);
// The same with the lock held: at the exclusive level, or at the seek level, from which it upgrades if need be.
bool oil_put_locked(oil_list_t *list, uint32_t first, uint32_t last, bool exclusive_held) REQUIRES(list->lock);

// The first and the last unit of all; false when there is none.
bool oil_epoch_apoc(const oil_list_t *list, uint32_t *first, uint32_t *last);
// Whether an interval holds `value`; *index (may be null) is then which.
bool oil_find(const oil_list_t *list, uint32_t value, uint32_t *index);
// Whether [first, last] overlaps some interval; *index (may be null) is then the first of them.
bool oil_range_contains(const oil_list_t *list, uint32_t first, uint32_t last, uint32_t *index);
// The same intervals in the same order.
bool oil_exact_match(const oil_list_t *a, const oil_list_t *b);

// Puts each interval of the source into the target, or into the locator's list, made when absent (its
// activity_oil_lock must be held). The result is the number of changes; a list merged into itself gives 0.
int oil_merge_inplace(oil_list_t *target, const oil_list_t *source);
int oil_merge_inplace(velmar_metric_locator_t *locator, const oil_list_t *source);

// Calls for each interval, in order, under a read lock: the callback must not touch this list.
using oil_iter_fn = void (*)(const oil_interval_t *interval, void *closure);
void oil_iter(const oil_list_t *list, oil_iter_fn callback, void *closure);
template <typename F>
void oil_iter(const oil_list_t *list, F &&function) {
  oil_iter(
      list,
      [](const oil_interval_t *interval, void *f) {
        (*static_cast<std::remove_reference_t<F> *>(f))(*interval);
      },
      &function);
}

// "OIL [%p] size[%u] cap[%u] entries[%p][(first,last)...]"
std::string oil_dump(const oil_list_t *list);
// The invariants hold.
bool oil_valid(const oil_list_t *list);
