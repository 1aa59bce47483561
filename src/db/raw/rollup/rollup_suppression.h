#pragma once
// Metrics that get no rollups: those whose stream tags match a tag search, or that a hook picks.

#include <string>

#include "platform/dorn/dorn_search.h"
#include "util/metric_locator.h"

namespace db::raw {

class rollup_suppression_c {
 public:
  rollup_suppression_c() = default;  // nothing matches but what the hook picks
  // `kind` is for the log: "raw database". A search that does not parse is logged, and nothing matches.
  rollup_suppression_c(const std::string &search, const char *kind);

  bool has_filter() const { return m_filter != nullptr; }
  bool matches_filter(const metric_locator_sp &locator) const;
  bool suppresses(const metric_locator_sp &locator) const;

 private:
  dorn_metric_tag_search_ptr m_filter;
};

}  // namespace db::raw
