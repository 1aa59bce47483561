// Lookups of many metrics at once.
#include <boost/unordered/unordered_flat_set.hpp>

#include "db/surrogate3/delegate_split.h"

namespace db::surrogate3 {

// Ids, resolved a page at a time.
class id_pager_c : public surrogate::batch_find_result_t {
 public:
  id_pager_c(coordinator_c &coordinator, std::span<const uint64_t> ids)
      : _coordinator(coordinator), _ids(ids.begin(), ids.end()) {}

  const std::vector<metric_locator_sp> &get_page_locators() const override { return _page; }
  bool fill_next_page() override {
    _page.clear();
    if (_next == _ids.size()) return false;
    const size_t count = std::min(_coordinator._max_page_size, _ids.size() - _next);
    _page.resize(count);
    _coordinator.find_locators(std::span(_ids).subspan(_next, count), &_page);
    _next += count;
    std::erase(_page, nullptr);
    return true;
  }

 private:
  coordinator_c &_coordinator;
  const std::vector<uint64_t> _ids;
  size_t _next = 0;
  std::vector<metric_locator_sp> _page;
};

namespace {

// Locators that are there already, a page at a time.
class locator_pager_c : public surrogate::batch_find_result_t {
 public:
  locator_pager_c(std::vector<metric_locator_sp> locators, size_t page_size)
      : _locators(std::move(locators)), _page_size(page_size) {}

  const std::vector<metric_locator_sp> &get_page_locators() const override { return _page; }
  bool fill_next_page() override {
    _page.clear();
    const size_t count = std::min(_page_size, _locators.size() - _next);
    for (const size_t end = _next + count; _next < end; ++_next) _page.push_back(std::move(_locators[_next]));
    return count != 0;
  }

 private:
  std::vector<metric_locator_sp> _locators;
  const size_t _page_size;
  size_t _next = 0;
  std::vector<metric_locator_sp> _page;
};

}  // namespace

// Fills ids, and found where the reader has the locator at hand, of the metrics in `places`.
void coordinator_c::find_by_key(const locators_t &wanted, const places_t &places, bool remember,
                                std::vector<uint64_t> *ids, std::vector<metric_locator_sp> *found) {
  std::vector<places_t> by_key(_num_threads);
  for (const uint32_t place : places) by_key[choose_delegate(wanted[place])].push_back(place);
  run_on_delegates(by_key, [&](lookup_delegate_c &delegate, const places_t &share) {
    for (const uint32_t place : share) {
      auto answer = delegate.find_surrogate(wanted[place], remember);
      (*ids)[place] = answer.id;
      (*found)[place] = std::move(answer.locator);
    }
  });
}

// The places in `found` that are empty get the locators of their ids.
void coordinator_c::find_locators(std::span<const uint64_t> ids, std::vector<metric_locator_sp> *found) {
  const std::vector<places_t> by_id = split(ids.size(), [&](size_t i) {
    return ids[i] == surrogate::ID_NONE || (*found)[i] ? NO_DELEGATE : choose_delegate(ids[i]);
  });
  run_on_delegates(by_id, [&](lookup_delegate_c &delegate, const places_t &places) {
    std::vector<metric_locator_sp> built;
    for (const uint32_t place : places) (*found)[place] = delegate.find_locator(ids[place], &built);
    hand_to_readers_by_key(std::move(built));
  });
}

void coordinator_c::resolve(const locators_t &wanted, bool remember, std::vector<metric_locator_sp> *found) {
  std::vector<uint64_t> ids(wanted.size());
  places_t unnumbered, misled;
  for (uint32_t i = 0; i < wanted.size(); ++i) {
    ids[i] = velmar_metric_locator_get_surrogate_id(wanted[i]);
    if (ids[i] == surrogate::ID_NONE) unnumbered.push_back(i);
  }
  find_by_key(wanted, unnumbered, remember, &ids, found);
  find_locators(ids, found);
  // the id that a locator brought may be deleted or another metric's: then its name decides
  for (uint32_t i = 0; i < wanted.size(); ++i) {
    if (velmar_metric_locator_get_surrogate_id(wanted[i]) == surrogate::ID_NONE) continue;
    if (velmar_metric_locator_matches((*found)[i].get(), wanted[i])) continue;
    (*found)[i].reset();
    misled.push_back(i);
  }
  if (misled.empty()) return;
  std::vector<uint64_t> true_ids(wanted.size());
  find_by_key(wanted, misled, remember, &true_ids, found);
  find_locators(true_ids, found);
}

surrogate::batch_find_result_sp coordinator_c::batch_find(std::span<const uint64_t> ids) {
  return std::make_shared<id_pager_c>(*this, ids);
}

surrogate::batch_find_result_sp coordinator_c::batch_find(const std::vector<metric_locator_sp> &locators) {
  locators_t wanted;
  wanted.reserve(locators.size());
  for (const metric_locator_sp &locator : locators) wanted.push_back(locator.get());
  std::vector<metric_locator_sp> found(wanted.size());
  resolve(wanted, true, &found);
  boost::unordered_flat_set<const velmar_metric_locator_t *> seen;
  std::erase_if(found, [&seen](const metric_locator_sp &locator) {
    return !locator || !seen.insert(locator.get()).second;
  });
  return std::make_shared<locator_pager_c>(std::move(found), _max_page_size);
}

}  // namespace db::surrogate3
