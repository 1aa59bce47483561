// What goes with time: expired shards, the disk's figures, the count of shards.

#include <atomic>

#include "db/ranged/nntbs/rollup_shard_mgr.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/files.h"
#include "util/io/fs_avail.h"

namespace db::ranged::nntbs {

namespace {

std::atomic_flag single_maintainer_lock;
// How long the manager waits for a shard's last transactions; a shard that is in use for longer goes with a
// later pass.
constexpr std::chrono::milliseconds DELETE_TIMEOUT{200};
constexpr double MIB = 1024.0 * 1024.0;

}  // namespace

uint64_t rollup_shard_mgr_c::absolute_epoch_at(const rollup_period_params_t &params, uint64_t now_s) {
  if (params.retention_length_seconds == 0 || params.retention_length_seconds >= now_s) return 0;
  return block_floor_of(now_s - params.retention_length_seconds, static_cast<uint64_t>(params.period));
}

uint64_t rollup_shard_mgr_c::get_absolute_epoch(int32_t period) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  const period_settings_t *const settings = find_settings(period);
  return settings ? settings->absolute_epoch : 0;
}

uint64_t rollup_shard_mgr_c::get_max_oldest_retention_time_s() const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  uint64_t longest = 0;
  for (const auto &[period, settings] : _period_settings) {
    if (settings.params.retention_length_seconds == 0) return 0;
    longest = std::max(longest, settings.params.retention_length_seconds);
  }
  const uint64_t now_s = m_clock.now_s();
  return now_s > longest ? now_s - longest : 0;
}

void rollup_shard_mgr_c::perform_retention() {
  init_rollup_diskspace();
  if (single_maintainer_lock.test_and_set()) return;
  const uint64_t now_s = m_clock.now_s();
  std::vector<rollup_shard_key_c> death_row;
  {
    const krel_shared_lock_c lock(_all_shards_shared_mutex);
    for (const auto &[period, settings] : _period_settings) {
      const uint64_t retention = settings.params.retention_length_seconds;
      if (retention == 0 || retention >= now_s) continue;
      for (const auto &[key, shard] : settings.key_to_shard)
        if (key.ceiling_s() < now_s - retention) death_row.push_back(key);
    }
  }
  {
    const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
    for (auto &[period, settings] : _period_settings) {
      settings.absolute_epoch = absolute_epoch_at(settings.params, now_s);
      if (rollup_config_t *config = settings.params.rollup_config)
        config->retention_epoch = settings.absolute_epoch;
    }
  }
  for (const rollup_shard_key_c &key : death_row) delete_shard(key);
  single_maintainer_lock.clear();
}

void rollup_shard_mgr_c::delete_shard(const rollup_shard_key_c &key) {
  rollup_shard_sp shard;
  std::string renamed;
  shard_maintenance_mode_e mode;
  {
    const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
    auto &shards = _period_settings.find(key.period_s())->second.key_to_shard;
    const auto found = shards.find(key);
    if (found == shards.end()) return;
    shard = found->second;
    mode = shard->maintenance_mode();
    renamed = shard->prep_for_storage_deletion(DELETE_TIMEOUT);
    if (renamed.empty()) return;
    const size_t removed = shards.erase(key);
    krel_assert(removed == 1);
  }
  const std::error_code error = manageable_rollup_shard_c::delete_underlying_storage(renamed);
  if (!error) {
    krel_log(krel_notice, "NNTBS shard %s has expired and is removed\n", shard->path().c_str());
    return;
  }
  krel_log(krel_error, "Unable to remove shard %s in maintenance: %.*s\n", shard->path().c_str(),
           static_cast<int>(error.message().size()), error.message().c_str());
  // Put back, so that what is left is seen and the removal tried again; unless its time has been taken anew.
  const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
  period_settings_t &settings = _period_settings.find(key.period_s())->second;
  if (shard_at(settings, key.floor_s()) || util::io::system_files().rename(renamed, shard->path())) return;
  shard->set_maintenance_mode(mode);
  settings.key_to_shard.emplace(key, shard);
}

// Not under the mutex: a file system that does not answer must not hold up reads and writes.
void rollup_shard_mgr_c::init_rollup_diskspace() {
  uint64_t fsid = 0, total = 0, avail = 0;
  double cratio = 1.0;
  if (fs_get_avail(_root_path, &fsid, &total, &avail, &cratio) < 0) return;
  const krel_exclusive_lock_c lock(_all_shards_shared_mutex);
  for (auto &[period, settings] : _period_settings) {
    settings.fsid = fsid;
    settings.space_total = total;
    settings.space_avail = avail;
    settings.cratio = cratio;
    if (rollup_config_t *config = settings.params.rollup_config) {
      config->fsid = fsid;
      config->space_total = total;
      config->space_avail = avail;
      config->cratio = cratio;
    }
  }
}

void rollup_shard_mgr_c::report_shard_trigger() {
  for (const int32_t period : get_periods()) {
    uint32_t online = 0, offline = 0, corrupt = 0;
    auto [error, shards] = create_iterator(period, 0, UINT64_MAX);
    if (error) {
      krel_log(krel_error, "nntbs %s: could not open iterator for period %d\n", "report_shard_trigger", period);
      continue;
    }
    for (; shards.is_valid(); shards.advance()) {
      switch (shards.get()->maintenance_mode()) {
        case ONLINE:
          ++online;
          break;
        case OFFLINE_CORRUPTED:
          ++corrupt;
          break;
        case OFFLINE:
        case OFFLINE_PENDING:
        case OFFLINE_RECONSTITUTE:
        case OFFLINE_CLOSED_PENDING_DELETE:
          ++offline;
          break;
        default:
          krel_log(krel_error, "Unknown NNTBS mode detected when trying to report shards");
      }
    }
    const krel_shared_lock_c lock(_all_shards_shared_mutex);
    const period_settings_t *const settings = find_settings(period);
    stats_set(settings->online_shards, STATS_TYPE_UINT32, &online);
    stats_set(settings->offline_shards, STATS_TYPE_UINT32, &offline);
    stats_set(settings->corrupt_shards, STATS_TYPE_UINT32, &corrupt);
  }
}

void rollup_shard_mgr_c::write_state(std::string *out) const {
  const krel_shared_lock_c lock(_all_shards_shared_mutex);
  for (const auto &[period, s] : _period_settings)
    *out += fmt::format(
        "  \"rollup_{}\":{{\n    \"fs\": {{\n      \"id\": {},\n      \"totalMb\": {:f},\n      \"availMb\": "
        "{:f}\n "
        "   }}}},\n",
        period, s.fsid, static_cast<double>(s.space_total) / MIB, static_cast<double>(s.space_avail) / MIB);
}

}  // namespace db::ranged::nntbs
