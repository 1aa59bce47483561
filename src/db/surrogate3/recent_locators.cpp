#include "db/surrogate3/recent_locators.h"

#include <algorithm>
#include <deque>

#include "db/surrogate3/flat_tables.h"

namespace db::surrogate3 {

uint64_t gather_tracker_c::begin() {
  const krel_lock_c lock(_mutex);
  _under_way.insert(_accepted);
  return _accepted;
}

void gather_tracker_c::end(uint64_t ticket) {
  const krel_lock_c lock(_mutex);
  _under_way.erase(_under_way.find(ticket));
}

void gather_tracker_c::set_accepted(uint64_t generation) {
  const krel_lock_c lock(_mutex);
  _accepted = std::max(_accepted, generation);
}

uint64_t gather_tracker_c::seen_by_all() const {
  const krel_lock_c lock(_mutex);
  return _under_way.empty() ? _accepted : *_under_way.begin();
}

struct recent_locators_c::impl_t {
  locator_set_t by_name;
  std::deque<std::pair<uint64_t, std::vector<metric_locator_sp>>> by_generation;
};

recent_locators_c::recent_locators_c() : _impl(std::make_unique<impl_t>()) {}
recent_locators_c::~recent_locators_c() = default;

metric_locator_sp recent_locators_c::find(const metric_locator_sp &locator) const {
  const auto found = _impl->by_name.find(locator);
  return found == _impl->by_name.end() ? nullptr : *found;
}

void recent_locators_c::add(const metric_locator_sp &canonical, uint64_t generation) {
  auto &generations = _impl->by_generation;
  if (generations.empty() || generations.back().first != generation) generations.push_back({generation, {}});
  generations.back().second.push_back(canonical);
  if (_impl->by_name.insert(canonical).second) return;
  _impl->by_name.erase(canonical);  // one of that name that was erased meanwhile
  _impl->by_name.insert(canonical);
}

void recent_locators_c::forget(uint64_t up_to_generation) {
  auto &generations = _impl->by_generation;
  while (!generations.empty() && generations.front().first <= up_to_generation) {
    for (const metric_locator_sp &locator : generations.front().second) {
      const auto found = _impl->by_name.find(locator);
      if (found != _impl->by_name.end() && *found == locator) _impl->by_name.erase(found);
    }
    generations.pop_front();
  }
}

size_t recent_locators_c::size() const {
  return _impl->by_name.size();
}

}  // namespace db::surrogate3
