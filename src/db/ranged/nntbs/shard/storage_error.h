#pragma once
// What went wrong in the store of rollups. Positive codes are the system's errno; the negative ones of the
// stores' own range are alike in both engines but for a few.

#include <system_error>

namespace db::ranged::nntbs {

enum class storage_errc_e : int {
  success = 0,
  floor_too_low = -100,  // below the least time that shards are made for
  no_period_settings = -101,
  open_failed = -102,
  wrong_mode = -103,  // the shard is offline
  key_exist = -30799,
  not_found = -30798,
  page_notfound = -30797,
  corrupted = -30796,
  panic = -30795,
  version_mismatch = -30794,
  invalid = -30793,
  map_full = -30792,
  dbs_full = -30791,
  readers_full = -30790,
  txn_full = -30788,
  cursor_full = -30787,
  page_full = -30786,
  incompatible = -30784,
  bad_rslot = -30783,
  bad_txn = -30782,
  bad_valsize = -30781,
  bad_dbi = -30780,
};

const std::error_category &storage_error_category();
inline std::error_code make_error_code(storage_errc_e code) {
  return {static_cast<int>(code), storage_error_category()};
}
inline std::error_code storage_error(int code) {
  return {code, storage_error_category()};
}

}  // namespace db::ranged::nntbs

template <>
struct std::is_error_code_enum<db::ranged::nntbs::storage_errc_e> : std::true_type {};
