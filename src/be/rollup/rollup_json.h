#pragma once
// Cells as the JSON of a rollup read: [[time,what is asked],...].

#include <cstdint>
#include <string>

#include "be/nntbs/nnt_multitype_part.h"
#include "db/ranged/ranged.h"

namespace velmar_be_rollup {

// Appends an item for each cell of the run, separated by commas, one in front when the payload already holds an
// item. Times are in seconds, with three decimals where they are not whole.
void build_json_output(const db::kv::ranged_c::value_c &run, nnt_multitype_part type, bool *has_items,
                       std::string *payload);

}  // namespace velmar_be_rollup
