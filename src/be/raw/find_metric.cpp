#include "be/raw/find_metric.h"

#include "be/raw/raw_put_write.h"
#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_memory.h"

namespace be::raw {

metric_locator_sp find_known_metric(const uint8_t *uuid, std::string_view name) {
  const krel_memory_section_c section;
  const auto *entry = raw_mgr().known.find({uuid, ANY_ACCOUNT, name});
  return entry ? metric_locator_sp(entry->locator) : nullptr;
}

metric_locator_sp find_canonical_metric(const metric_locator_sp &locator) {
  const velmar_metric_locator_t *l = locator.get();
  metric_locator_sp known = find_known_metric(
      velmar_metric_locator_get_check_uuid(l),
      {velmar_metric_locator_get_name_with_tags(l), velmar_metric_locator_get_name_len_with_tags(l)});
  if (known) return known;
  const uint64_t id = velmar_global_surrogate_get_synch(locator);
  return id ? velmar_global_surrogate_reverse_get_synch(id) : nullptr;
}

}  // namespace be::raw
