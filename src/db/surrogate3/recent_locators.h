#pragma once
// Metrics that were created so lately that a batch may be on its way to the writer which looked for them
// before the readers held them. Without this, such a batch would create them again.

#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include "platform/krel/base/thread_annotations.h"
#include "util/metric_locator.h"

namespace db::surrogate3 {

// Which creations the batches under way may have missed. Safe from any thread.
class gather_tracker_c {
 public:
  // A batch begins to look its metrics up; the ticket is given back when the writer has it.
  uint64_t begin();
  void end(uint64_t ticket);
  // All readers hold what was created up to this generation.
  void set_accepted(uint64_t generation);
  // No batch under way, and none that begins, can have missed this generation or an older one.
  uint64_t seen_by_all() const;

 private:
  mutable krel_mutex_c _mutex;
  uint64_t _accepted GUARDED_BY(_mutex) = 0;
  std::multiset<uint64_t> _under_way GUARDED_BY(_mutex);
};

// The writer's own.
class recent_locators_c {
 public:
  recent_locators_c();
  ~recent_locators_c();
  metric_locator_sp find(const metric_locator_sp &locator) const;     // the canonical one, or null
  void add(const metric_locator_sp &canonical, uint64_t generation);  // generations never fall
  void forget(uint64_t up_to_generation);
  size_t size() const;

 private:
  struct impl_t;
  std::unique_ptr<impl_t> _impl;
};

}  // namespace db::surrogate3
