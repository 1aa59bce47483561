#pragma once
// The reading that a batch needs before the writer sees it, done on the caller's thread.

#include <functional>
#include <vector>

#include "db/surrogate/surrogate.h"

namespace db::surrogate3 {

class gather_write_c {
 public:
  using locators_t = std::vector<const velmar_metric_locator_t *>;
  // Looks up canonical locators, one place per locator asked for, null where there is none.
  using resolve_f = std::function<void(const locators_t &wanted, std::vector<metric_locator_sp> *found)>;

  gather_write_c(const surrogate::write_entry_c *write_entries, size_t num_write_entries)
      : _write_entries(write_entries), _num_write_entries(num_write_entries) {}

  // Entries that hold the canonical locator already are not looked up.
  void prime_canonical_locators(const resolve_f &resolve);
  // Of entry i; null when the metric was unknown then.
  const metric_locator_sp &get_canonical_locator(size_t i) const { return _canonical_locators[i]; }

 private:
  const surrogate::write_entry_c *const _write_entries;
  const size_t _num_write_entries;
  std::vector<metric_locator_sp> _canonical_locators;  // per entry
};

// Is it the stored instance of a metric that is not erased?
inline bool is_live_canonical(const metric_locator_sp &locator) {
  return locator && velmar_metric_locator_is_canonical(locator.get()) &&
         velmar_metric_locator_get_surrogate_id(locator.get()) != surrogate::ID_NONE;
}

}  // namespace db::surrogate3
