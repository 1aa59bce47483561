#pragma once
// The results of one batch.

#include <memory>
#include <vector>

#include "db/surrogate/surrogate.h"

namespace db::surrogate3 {

class write_result_collector_c : public surrogate::value_reader_c {
 public:
  explicit write_result_collector_c(size_t count);
  ~write_result_collector_c() override;

  // The writer, once per entry in order: the entry's key is on its canonical locator.
  void accept(const surrogate::write_entry_c &entry, uint64_t id);

  surrogate::value_c *get_values() override { return _values.data(); }
  void **get_passthroughs() override { return _passthroughs.data(); }
  size_t get_count() const override { return _count; }
  // From this batch, else from the node's database; null when unknown.
  metric_locator_sp get_canonical_locator(uint64_t id) override;

 private:
  size_t _count = 0;
  std::vector<surrogate::value_c> _values;
  std::vector<void *> _passthroughs;
  struct index_t;
  std::unique_ptr<index_t> _id_to_locator;  // made when it is first asked for
};

// Frees collectors.
surrogate::value_manager_c *default_value_manager();

}  // namespace db::surrogate3
