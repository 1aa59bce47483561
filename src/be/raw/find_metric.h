#pragma once
// Metrics of reads, found as the write path knows them.

#include <cstdint>
#include <string_view>

#include "util/metric_locator.h"

namespace be::raw {

// The canonical locator of a metric that samples arrive for, by its name as it was sent; null for others.
// Never blocks.
metric_locator_sp find_known_metric(const uint8_t *uuid, std::string_view name);
// The stored locator of the metric, with its surrogate id; null when there is none. May block.
metric_locator_sp find_canonical_metric(const metric_locator_sp &locator);

}  // namespace be::raw
