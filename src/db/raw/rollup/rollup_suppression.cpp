#include "db/raw/rollup/rollup_suppression.h"

#include "db/raw/rollup/rollup_hooks.h"
#include "platform/krel/base/krel_log.h"

namespace db::raw {

rollup_suppression_c::rollup_suppression_c(const std::string &search, const char *kind) {
  int offset = 0;
  m_filter = dorn_metric_tag_search_parse(search, &offset);
  if (m_filter)
    krel_log(krel_notice, "%s: suppress rollup filter %s\n", kind, search.c_str());
  else
    krel_log(krel_error, "%s: error in suppress rollup filter (offset %d)\n", kind, offset);
}

bool rollup_suppression_c::matches_filter(const metric_locator_sp &locator) const {
  return m_filter && dorn_metric_tag_search_evaluate_against_tags(
                         m_filter.get(), velmar_metric_locator_get_stream_tags(locator.get()));
}

bool rollup_suppression_c::suppresses(const metric_locator_sp &locator) const {
  return matches_filter(locator) || suppress_rollup_filter_hook_invoke(locator);
}

}  // namespace db::raw
