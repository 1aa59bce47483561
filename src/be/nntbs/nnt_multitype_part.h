#pragma once
// What an answer shows of a rollup cell.

#include <optional>
#include <string_view>

enum nnt_multitype_part : int {
  NNT_COUNT = 0,
  NNT_AVERAGE = 1,
  NNT_AVERAGE_STDDEV = 2,
  NNT_DERIVE = 3,
  NNT_DERIVE_STDDEV = 4,
  NNT_COUNTER = 5,
  NNT_COUNTER_STDDEV = 6,
  NNT_ALL = 7,
  NNT_DERIVE2 = 8,
  NNT_DERIVE2_STDDEV = 9,
  NNT_COUNTER2 = 10,
  NNT_COUNTER2_STDDEV = 11,
  NNT_MIN = 12,
  NNT_MAX = 13,
  NNT_COUNTER_MIN = 14,
  NNT_COUNTER_MAX = 15,
  NNT_DERIVE_MIN = 16,
  NNT_DERIVE_MAX = 17,
  NNT_SUM = 18,  // never printed
};

// The word of a part in paths and queries ("average_stddev"); null when it has none.
const char *rest_get_numeric_pull_type(nnt_multitype_part type);
// The part that a query's "type" names; "derivative" stands for "derive", minima and maxima are not asked for.
std::optional<nnt_multitype_part> nnt_multitype_part_parse(std::string_view text);
