#pragma once
// Collects ids and resolves them to locators in pages. One thread at a time.

#include <functional>
#include <memory>

#include "db/surrogate/surrogate.h"

namespace db::surrogate {

class batch_accumulator_c {
 public:
  explicit batch_accumulator_c(lookup_synch_c *sls);  // which outlives this
  ~batch_accumulator_c();

  void add(uint64_t id);
  void remove(uint64_t id);                  // with its locator
  void resolve();                            // looks all ids up; blocks
  metric_locator_sp get(uint64_t id) const;  // null: not resolved, or unknown
  size_t size() const;                       // ids
  // Every resolved id; the function returns false to stop.
  void for_each(const std::function<bool(uint64_t id, const metric_locator_sp &locator)> &function) const;

 private:
  lookup_synch_c *const _sls;
  struct tables_t;
  std::unique_ptr<tables_t> _tables;
};

}  // namespace db::surrogate
