#include "db/surrogate3/write_result_collector.h"

#include "db/surrogate3/flat_tables.h"

namespace db::surrogate3 {

struct write_result_collector_c::index_t {
  id_to_locator_t locators;
};

write_result_collector_c::write_result_collector_c(size_t count) : _values(count), _passthroughs(count) {}
write_result_collector_c::~write_result_collector_c() = default;

void write_result_collector_c::accept(const surrogate::write_entry_c &entry, uint64_t id) {
  krel_assert(_count < _values.size());
  _values[_count].set_data(id, entry.get_key());
  _passthroughs[_count] = entry.get_passthrough();
  ++_count;
}

metric_locator_sp write_result_collector_c::get_canonical_locator(uint64_t id) {
  if (!_id_to_locator) {
    _id_to_locator = std::make_unique<index_t>();
    for (size_t i = 0; i < _count; ++i)
      _id_to_locator->locators.emplace(_values[i].get_surrogate_id(),
                                       _values[i].get_orig_key().get_metric_locator());
  }
  const auto found = _id_to_locator->locators.find(id);
  return found != _id_to_locator->locators.end() ? found->second
                                                 : velmar_global_surrogate_reverse_get_synch(id);
}

surrogate::value_manager_c *default_value_manager() {
  class manager_c : public surrogate::value_manager_c {
   public:
    void free_values(surrogate::value_reader_c *reader) override {
      const std::unique_ptr<surrogate::value_reader_c> owned(reader);
    }
  };
  static manager_c manager;
  return &manager;
}

}  // namespace db::surrogate3
