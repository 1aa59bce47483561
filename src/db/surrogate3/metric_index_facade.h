#pragma once
// The tag index as the surrogate database keeps it up to date.

#include "util/metric_locator.h"

namespace db::surrogate3 {

enum class metric_index_update_e { insert, remove };

class metric_index_facade_c {
 public:
  virtual ~metric_index_facade_c() = default;
  // The locator has its id. What is inserted is canonical; what is removed may be a copy, or erased already.
  // Either may come again for what is there or gone. Safe from any thread.
  virtual void update(metric_index_update_e what, const metric_locator_sp &locator) = 0;
};

}  // namespace db::surrogate3
