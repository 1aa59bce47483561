#include "db/ranged/nntbs/shard/rollup_shard_key.h"

#include <fmt/core.h>

#include "db/ranged/nntbs/shard/nntbs_block.h"
#include "platform/krel/base/krel_util.h"

namespace db::ranged::nntbs {

namespace {

struct numbers_t {
  uint64_t period, floor, ceiling;
};

std::optional<numbers_t> split(std::string_view name) {
  const size_t under = name.find('_');
  const size_t dash = under == std::string_view::npos ? under : name.find('-', under);
  numbers_t n;
  if (dash == std::string_view::npos || !krel_parse_uint64(name.substr(0, under), &n.period) ||
      !krel_parse_uint64(name.substr(under + 1, dash - under - 1), &n.floor) ||
      !krel_parse_uint64(name.substr(dash + 1), &n.ceiling))
    return {};
  return n;
}

}  // namespace

std::string rollup_shard_key_c::directory_name() const {
  return fmt::format("{}_{}-{}", _period, _floor, ceiling_s());
}

std::optional<rollup_shard_key_c> rollup_shard_key_c::parse(std::string_view name) {
  const auto n = split(name);
  if (!n || n->period == 0 || n->period > INT32_MAX || n->ceiling <= n->floor ||
      n->ceiling - n->floor > INT32_MAX || n->floor % block_span_s(n->period) != 0 ||
      n->ceiling % block_span_s(n->period) != 0)
    return {};
  const rollup_shard_key_c key(n->floor, static_cast<int32_t>(n->period),
                               static_cast<int32_t>(n->ceiling - n->floor));
  if (key.directory_name() != name) return {};  // leading zeros: the same shard would have two names
  return key;
}

std::optional<uint64_t> rollup_shard_key_c::parse_period(std::string_view name) {
  const auto n = split(name);
  return n ? std::optional(n->period) : std::nullopt;
}

bool rollup_shard_key_c::is_deleting(std::string_view name) {
  const size_t dot = name.find('.');
  if (dot == std::string_view::npos || !split(name.substr(0, dot))) return false;
  std::string_view rest = name.substr(dot);
  constexpr std::string_view word = ".deleting";
  if (rest.substr(0, word.size()) != word) return false;
  rest.remove_prefix(word.size());
  uint64_t number;
  return rest.empty() || (rest[0] == '-' && krel_parse_uint64(rest.substr(1), &number));
}

}  // namespace db::ranged::nntbs
