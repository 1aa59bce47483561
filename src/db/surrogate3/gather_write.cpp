#include "db/surrogate3/gather_write.h"

namespace db::surrogate3 {

void gather_write_c::prime_canonical_locators(const resolve_f &resolve) {
  locators_t locators_in_flight;
  std::vector<size_t> places;
  locators_in_flight.reserve(_num_write_entries);
  places.reserve(_num_write_entries);
  _canonical_locators.resize(_num_write_entries);
  for (size_t i = 0; i < _num_write_entries; ++i) {
    const surrogate::key_c &key = _write_entries[i].get_key();
    krel_assert(key.is_valid());
    const metric_locator_sp &locator = key.get_metric_locator();
    if (is_live_canonical(locator)) {
      _canonical_locators[i] = locator;
    } else {
      locators_in_flight.push_back(locator.get());
      places.push_back(i);
    }
  }
  if (places.empty()) return;
  std::vector<metric_locator_sp> found(places.size());
  resolve(locators_in_flight, &found);
  for (size_t i = 0; i < places.size(); ++i) _canonical_locators[places[i]] = std::move(found[i]);
}

}  // namespace db::surrogate3
