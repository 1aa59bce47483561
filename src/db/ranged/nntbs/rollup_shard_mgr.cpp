#include "db/ranged/nntbs/rollup_shard_mgr.h"

#include <algorithm>
#include <limits>

#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"
#include "util/velmar_stats.h"

namespace db::ranged::nntbs {

namespace {

stats_handle_t *handle(stats_ns_t *ns, const char *operation, const char *what, int kind, const char *units) {
  stats_handle_t *const h = stats_register(ns, (std::string(operation) + "`" + what).c_str(), kind);
  if (h == nullptr) return nullptr;
  stats_handle_tagged_name(h, what);
  stats_handle_add_tag(h, "operation", operation);
  stats_handle_add_tag(h, "units", units);
  return h;
}

}  // namespace

rollup_shard_mgr_c::rollup_shard_mgr_c(rollup_shard_mgr_params_t params)
    : _root_path(params.root_path),
      _minimum_shard_floor(params.minimum_shard_floor),
      m_clock(*params.clock),
      _provider_shard(params.storage, params.lmdb_flags) {
  if (const auto error = util::io::mkdir_for_file(_root_path + "/"))
    krel_fatal("Directory was not created: %s, error: %d - %s\n", _root_path.c_str(), error.value(),
               error.message().c_str());
  const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
  for (const rollup_period_params_t &period : params.periods) add_period(period);
  scan();
}

rollup_shard_mgr_c::~rollup_shard_mgr_c() {
  const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
  _period_settings.clear();
}

void rollup_shard_mgr_c::add_period(const rollup_period_params_t &params) {
  period_settings_t &settings = _period_settings[params.period];
  settings.params = params;
  settings.absolute_epoch = absolute_epoch_at(params, m_clock.now_s());
  const std::string period = std::to_string(params.period);
  stats_ns_t *const ns = velmar_stats_get_ns(("db.nntbs." + period).c_str());
  stats_ns_add_tag(ns, "db-type", "nntbs");
  stats_ns_add_tag(ns, "rollup-period", period.c_str());
  settings.latency = {handle(ns, "get", "latency", STATS_TYPE_HISTOGRAM, "seconds"),
                      handle(ns, "put", "latency", STATS_TYPE_HISTOGRAM, "seconds"),
                      handle(ns, "put", "transactions", STATS_TYPE_COUNTER, "transactions")};
  settings.online_shards = handle(ns, "shards", "online_shards", STATS_TYPE_UINT32, "shards");
  settings.offline_shards = handle(ns, "shards", "offline_shards", STATS_TYPE_UINT32, "shards");
  settings.corrupt_shards = handle(ns, "shards", "corrupt_shards", STATS_TYPE_UINT32, "shards");
}

// ---- what is on disk

void rollup_shard_mgr_c::scan() {
  std::vector<std::string> names;
  if (const auto error = util::io::system_files().list(_root_path, &names))
    krel_fatal("NNTBS: cannot list %s: %d - %s\n", _root_path.c_str(), error.value(), error.message().c_str());
  for (const std::string &name : names) scan_entry(name);
}

void rollup_shard_mgr_c::scan_entry(const std::string &name) {
  const std::string path = _root_path + "/" + name;
  if (rollup_shard_key_c::is_deleting(name)) {
    if (const auto error = manageable_rollup_shard_c::delete_underlying_storage(path))
      krel_log(krel_error, "Unable to remove shard %s: %s\n", path.c_str(), error.message().c_str());
    return;
  }
  const auto period = rollup_shard_key_c::parse_period(name);
  if (!period) return;
  const auto key = rollup_shard_key_c::parse(name);
  const auto found =
      *period <= INT32_MAX ? _period_settings.find(static_cast<int32_t>(*period)) : _period_settings.end();
  if (!key) {
    krel_log(krel_error, "NNTBS: %s is not named as a shard of whole blocks (ignoring)\n", path.c_str());
    return;
  }
  if (found == _period_settings.end()) {
    krel_log(krel_notice,
             "Found an unconfigured shard (ignoring): start: %lu end: %lu, period: %d, full name: %s\n",
             key->floor_s(), key->ceiling_s(), key->period_s(), name.c_str());
    return;
  }
  period_settings_t &settings = found->second;
  const auto next = settings.key_to_shard.lower_bound(*key);
  const bool overlaps =
      (next != settings.key_to_shard.end() && next->first.floor_s() < key->ceiling_s()) ||
      (next != settings.key_to_shard.begin() && std::prev(next)->first.ceiling_s() > key->floor_s());
  if (overlaps) {
    krel_log(krel_error, "NNTBS: shard %s overlaps another one in time (ignoring)\n", path.c_str());
    return;
  }
  if (key->floor_s() < settings.absolute_epoch)
    krel_log(krel_notice, "NNTBS timeshard period: %d, absolute_epoch: %zu, shard start %zu\n", key->period_s(),
             static_cast<size_t>(settings.absolute_epoch), static_cast<size_t>(key->floor_s()));
  settings.key_to_shard.emplace(*key, make_shard(&settings, *key));
}

rollup_shard_sp rollup_shard_mgr_c::make_shard(period_settings_t *settings, const rollup_shard_key_c &key) {
  std::shared_ptr<rollup_shard_anchor_c> &anchor = _shard_key_to_anchor[key];
  if (!anchor)
    anchor =
        std::make_shared<rollup_shard_anchor_c>(_root_path + "/" + key.directory_name(), settings->latency);
  return _provider_shard.provide(key, anchor, settings->params.initial_map_size);
}

// ---- finding and making

const rollup_shard_mgr_c::period_settings_t *rollup_shard_mgr_c::find_settings(int32_t period) const {
  const auto found = _period_settings.find(period);
  return found == _period_settings.end() ? nullptr : &found->second;
}

rollup_shard_sp rollup_shard_mgr_c::shard_at(const period_settings_t &settings, uint64_t ts) {
  const auto behind =
      settings.key_to_shard.upper_bound({ts, settings.params.period, std::numeric_limits<int32_t>::max()});
  if (behind == settings.key_to_shard.begin()) return {};
  const auto &[key, shard] = *std::prev(behind);
  return key.contains(ts) ? shard : rollup_shard_sp();
}

// The reference is taken before the mode is looked at: a shard that is on its way offline either is seen to be,
// or sees this user and waits.
rollup_shard_mgr_c::found_t rollup_shard_mgr_c::find_shard(uint64_t ts, int32_t period,
                                                           shard_modes_c acceptable_modes) const {
  const period_settings_t *const settings = find_settings(period);
  if (!settings) return {storage_errc_e::no_period_settings, nullptr};
  rollup_shard_sp shard = shard_at(*settings, ts);
  if (shard && !acceptable_modes.has(shard->maintenance_mode())) return {storage_errc_e::wrong_mode, nullptr};
  return {std::error_code(), std::move(shard)};
}

rollup_shard_mgr_c::found_t rollup_shard_mgr_c::open(uint64_t ts, int32_t period,
                                                     shard_modes_c acceptable_modes) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  return find_shard(ts, period, acceptable_modes);
}

rollup_shard_mgr_c::found_t rollup_shard_mgr_c::open_or_create(uint64_t ts, int32_t period,
                                                               shard_modes_c acceptable_modes) {
  if (found_t found = open(ts, period, acceptable_modes); found.first || found.second) {
    if (found.first == storage_errc_e::no_period_settings)
      krel_log(krel_error, "open_or_create timeshard %s failed - no period settings\n",
               std::to_string(period).c_str());
    return found;
  }
  const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
  if (found_t found = find_shard(ts, period, acceptable_modes); found.first || found.second) return found;
  return create_shard(&_period_settings.find(period)->second, ts);
}

// A shard begins on the grid of the configured length, but keeps clear of shards of another length that were
// made under an earlier configuration.
rollup_shard_mgr_c::found_t rollup_shard_mgr_c::create_shard(period_settings_t *settings, uint64_t ts) {
  const rollup_period_params_t &params = settings->params;
  uint64_t floor = ts - ts % params.length_seconds;
  uint64_t ceiling = floor + params.length_seconds;
  if (floor < _minimum_shard_floor) {
    krel_log(krel_error, "%s timeshard %zu (period %d) failed - floor (%zu) below minimum (%zu)\n",
             "open_or_create", static_cast<size_t>(ts), params.period, static_cast<size_t>(floor),
             static_cast<size_t>(_minimum_shard_floor));
    return {storage_errc_e::floor_too_low, nullptr};
  }
  const auto next =
      settings->key_to_shard.upper_bound({ts, params.period, std::numeric_limits<int32_t>::max()});
  if (next != settings->key_to_shard.end()) ceiling = std::min(ceiling, next->first.floor_s());
  if (next != settings->key_to_shard.begin()) floor = std::max(floor, std::prev(next)->first.ceiling_s());
  const rollup_shard_key_c key(floor, params.period, static_cast<int32_t>(ceiling - floor));
  rollup_shard_sp shard = make_shard(settings, key);
  if (shard->open(ONLINE)) {
    krel_log(krel_error, "%s timeshard %zu (period %d) failed - open() failed\n", "open_or_create",
             static_cast<size_t>(ts), params.period);
    return {storage_errc_e::open_failed, nullptr};
  }
  settings->key_to_shard.emplace(key, shard);
  return {std::error_code(), std::move(shard)};
}

// ---- walking

std::vector<rollup_shard_sp> rollup_shard_mgr_c::snapshot(int32_t period) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  std::vector<rollup_shard_sp> shards;
  if (const period_settings_t *settings = find_settings(period))
    for (const auto &[key, shard] : settings->key_to_shard) shards.push_back(shard);
  return shards;
}

std::pair<std::error_code, rollup_shard_iterator_c> rollup_shard_mgr_c::create_iterator(
    int32_t period, uint64_t epoch, uint64_t apocalypse) const {
  rollup_shard_iterator_c iter_handle(epoch, apocalypse);
  krel_assert(epoch <= iter_handle.get_apocalypse());
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  const period_settings_t *const settings = find_settings(period);
  if (!settings) return {storage_errc_e::no_period_settings, std::move(iter_handle)};
  std::vector<rollup_shard_sp> shards;
  for (const auto &[key, shard] : settings->key_to_shard)  // in order of time
    if (key.ceiling_s() > epoch && key.floor_s() <= apocalypse) shards.push_back(shard);
  iter_handle.assign_shards(std::move(shards));
  return {std::error_code(), std::move(iter_handle)};
}

bool rollup_shard_mgr_c::get_epoch(uint64_t sid, int32_t period, uint64_t *out) const {
  const auto shards = snapshot(period);
  return std::any_of(shards.begin(), shards.end(), [&](const rollup_shard_sp &shard) {
    return shard->maintenance_mode() == ONLINE && shard->get_timestamp(sid, true, out);
  });
}

bool rollup_shard_mgr_c::get_apocalypse(uint64_t sid, int32_t period, uint64_t *out) const {
  const auto shards = snapshot(period);
  return std::any_of(shards.rbegin(), shards.rend(), [&](const rollup_shard_sp &shard) {
    return shard->maintenance_mode() == ONLINE && shard->get_timestamp(sid, false, out);
  });
}

bool rollup_shard_mgr_c::is_offline(int32_t period, uint64_t start, uint64_t end) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  const period_settings_t *const settings = find_settings(period);
  if (!settings) return false;
  const auto &shards = settings->key_to_shard;
  return std::any_of(shards.begin(), shards.end(), [&](const auto &entry) {
    return entry.first.ceiling_s() > start && entry.first.floor_s() < end &&
           entry.second->maintenance_mode() != ONLINE;
  });
}

uint64_t rollup_shard_mgr_c::get_start_of_last_shard(int32_t period) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  const period_settings_t *const settings = find_settings(period);
  return settings && !settings->key_to_shard.empty() ? settings->key_to_shard.rbegin()->first.floor_s() : 0;
}

std::vector<int32_t> rollup_shard_mgr_c::get_periods() const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  std::vector<int32_t> periods;
  for (const auto &[period, settings] : _period_settings) periods.push_back(period);
  return periods;
}

void rollup_shard_mgr_c::delete_before(uint64_t sid, int32_t period, uint64_t new_epoch) {
  for (const rollup_shard_sp &shard : snapshot(period))
    if (shard->floor_s() < new_epoch && shard->maintenance_mode() == ONLINE) {
      if (const auto error = shard->delete_before(sid, new_epoch))
        krel_log(krel_error, "NNTBS shard %s: delete_before: %s\n", shard->path().c_str(),
                 error.message().c_str());
    }
}

void rollup_shard_mgr_c::close_all() {
  for (const int32_t period : get_periods())
    for (const rollup_shard_sp &shard : snapshot(period)) shard->close_underlying_storage();
}

}  // namespace db::ranged::nntbs
