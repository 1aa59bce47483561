#pragma once
// The name of a rollup shard: its period and its span of time.

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace db::ranged::nntbs {

class rollup_shard_key_c {
 public:
  rollup_shard_key_c(uint64_t floor_s, int32_t period_s, int32_t span_s)
      : _floor(floor_s), _period(period_s), _span_seconds(span_s) {}

  uint64_t floor_s() const { return _floor; }
  uint64_t ceiling_s() const { return _floor + static_cast<uint64_t>(_span_seconds); }  // first second behind
  int32_t period_s() const { return _period; }
  int32_t span_s() const { return _span_seconds; }
  bool contains(uint64_t t) const { return t >= _floor && t < ceiling_s(); }

  std::string directory_name() const;  // "60_0-91440"
  // None when the name is not of the form, its bounds do not hold whole blocks, or it is not what
  // directory_name gives.
  static std::optional<rollup_shard_key_c> parse(std::string_view name);
  // The period that a name of the form begins with, whatever its bounds.
  static std::optional<uint64_t> parse_period(std::string_view name);
  // A shard's directory on its way out.
  static bool is_deleting(std::string_view name);

  // By time within a period.
  friend auto operator<=>(const rollup_shard_key_c &a, const rollup_shard_key_c &b) {
    if (const auto order = a._period <=> b._period; order != 0) return order;
    if (const auto order = a._floor <=> b._floor; order != 0) return order;
    return a._span_seconds <=> b._span_seconds;
  }
  friend bool operator==(const rollup_shard_key_c &, const rollup_shard_key_c &) = default;

 private:
  uint64_t _floor;
  int32_t _period, _span_seconds;
};

struct rollup_shard_key_hash_t {
  size_t operator()(const rollup_shard_key_c &key) const {
    uint64_t h = key.floor_s() * 0x9e3779b97f4a7c15ULL;
    h ^= (static_cast<uint64_t>(key.period_s()) << 32) + static_cast<uint64_t>(key.span_s());
    return static_cast<size_t>(h * 0x9e3779b97f4a7c15ULL);
  }
};

}  // namespace db::ranged::nntbs
