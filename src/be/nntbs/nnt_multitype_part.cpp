#include "be/nntbs/nnt_multitype_part.h"

#include <iterator>
#include <string>

namespace {

constexpr const char *WORDS[] = {
    "count",
    "average",
    "average_stddev",
    "derive",
    "derive_stddev",
    "counter",
    "counter_stddev",
    "all",
    "derive2",
    "derive2_stddev",
    "counter2",
    "counter2_stddev",
    "min",
    "max",
    "counter_min",
    "counter_max",
    "derive_min",
    "derive_max",
};

}  // namespace

const char *rest_get_numeric_pull_type(nnt_multitype_part type) {
  return type >= NNT_COUNT && type <= NNT_DERIVE_MAX ? WORDS[type] : nullptr;
}

std::optional<nnt_multitype_part> nnt_multitype_part_parse(std::string_view text) {
  constexpr std::string_view LONG = "derivative", SHORT = "derive";
  std::string word(text);
  if (text.substr(0, LONG.size()) == LONG) word.replace(0, LONG.size(), SHORT);
  for (int i = NNT_COUNT; i <= NNT_COUNTER2_STDDEV; i++)
    if (word == WORDS[i]) return static_cast<nnt_multitype_part>(i);
  return std::nullopt;
}
