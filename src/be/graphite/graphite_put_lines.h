#pragma once
// Lines without a request: their way into the stores.

#include <functional>
#include <string>

#include "be/graphite/rest_graphite_mgr.h"

namespace be::graphite {

// Complete lines, for whose bytes the caller has taken from raw_put_budget(); they are given back when their
// samples are stored. Then `done` runs, once, on whichever thread ended the work. They are never given up for
// having waited too long: nobody would send them again.
void put_lines(const source_t &source, std::string text, std::function<void(const atomic_counters_t &)> done);

}  // namespace be::graphite
