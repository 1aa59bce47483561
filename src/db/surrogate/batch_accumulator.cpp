#include "db/surrogate/batch_accumulator.h"

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

namespace db::surrogate {

struct batch_accumulator_c::tables_t {
  boost::unordered_flat_set<uint64_t> ids;
  boost::unordered_flat_map<uint64_t, metric_locator_sp> id_to_locator;
};

batch_accumulator_c::batch_accumulator_c(lookup_synch_c *sls)
    : _sls(sls), _tables(std::make_unique<tables_t>()) {}
batch_accumulator_c::~batch_accumulator_c() = default;

void batch_accumulator_c::add(uint64_t id) {
  _tables->ids.insert(id);
}

void batch_accumulator_c::remove(uint64_t id) {
  _tables->ids.erase(id);
  _tables->id_to_locator.erase(id);
}

void batch_accumulator_c::resolve() {
  const std::vector<uint64_t> ids(_tables->ids.begin(), _tables->ids.end());
  const batch_find_result_sp pages = _sls->batch_find(ids);
  while (pages->fill_next_page())
    for (const metric_locator_sp &locator : pages->get_page_locators())
      _tables->id_to_locator[velmar_metric_locator_get_surrogate_id(locator.get())] = locator;
}

metric_locator_sp batch_accumulator_c::get(uint64_t id) const {
  const auto found = _tables->id_to_locator.find(id);
  return found == _tables->id_to_locator.end() ? nullptr : found->second;
}

size_t batch_accumulator_c::size() const {
  return _tables->ids.size();
}

void batch_accumulator_c::for_each(
    const std::function<bool(uint64_t, const metric_locator_sp &)> &function) const {
  for (const auto &[id, locator] : _tables->id_to_locator)
    if (!function(id, locator)) return;
}

}  // namespace db::surrogate
