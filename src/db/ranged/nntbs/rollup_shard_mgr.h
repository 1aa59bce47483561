#pragma once
// All rollup shards: which one holds a time, making them, walking them, and letting them go when their time is
// over. Safe from any thread; everything blocks on the disk.
//
// Lock order: the manager's mutex, then a shard's anchor. Long work is done on snapshots of references with the
// mutex released.

#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "db/ranged/nntbs/rollup_shard_iterator.h"
#include "db/ranged/nntbs/rollup_shard_mgr_config.h"
#include "platform/krel/base/thread_annotations.h"

namespace db::ranged::nntbs {

class rollup_shard_mgr_c {
 public:
  using found_t = std::pair<std::error_code, rollup_shard_sp>;

  // Finds the shards that are there. One that is damaged is held OFFLINE_CORRUPTED; the others are opened when
  // they are first used.
  explicit rollup_shard_mgr_c(rollup_shard_mgr_params_t params);
  ~rollup_shard_mgr_c();
  rollup_shard_mgr_c(const rollup_shard_mgr_c &) = delete;
  rollup_shard_mgr_c &operator=(const rollup_shard_mgr_c &) = delete;

  // The shard that holds ts (seconds), made when it is missing; or no_period_settings, floor_too_low,
  // wrong_mode, open_failed.
  found_t open_or_create(uint64_t ts, int32_t period, shard_modes_c acceptable_modes = ONLINE);
  // A missing shard is success and null.
  found_t open(uint64_t ts, int32_t period, shard_modes_c acceptable_modes = ONLINE) const;
  std::pair<std::error_code, rollup_shard_iterator_c> create_iterator(int32_t period, uint64_t epoch,
                                                                      uint64_t apocalypse) const;
  // Time of the metric's first and last cell at the period, in shards that are online; false when there is
  // none.
  bool get_epoch(uint64_t sid, int32_t period, uint64_t *out) const;
  bool get_apocalypse(uint64_t sid, int32_t period, uint64_t *out) const;
  uint64_t get_start_of_last_shard(int32_t period) const;               // 0: there is none
  uint64_t get_absolute_epoch(int32_t period) const;                    // the oldest time still kept; 0: all is
  uint64_t get_max_oldest_retention_time_s() const;                     // the same over all periods
  bool is_offline(int32_t period, uint64_t start, uint64_t end) const;  // some shard of the range is not online
  std::vector<int32_t> get_periods() const;

  void delete_before(uint64_t sid, int32_t period, uint64_t new_epoch);
  // Removes the shards whose time is over, refreshes the figures of the disk. One pass at a time.
  void perform_retention();
  void init_rollup_diskspace();
  void report_shard_trigger();               // the gauges of how many shards are online
  void write_state(std::string *out) const;  // the disk's figures by period, as members of a JSON object
  void close_all();                          // every environment; they open again when used

 private:
  struct period_settings_t {
    rollup_period_params_t params;
    uint64_t absolute_epoch = 0;
    std::map<rollup_shard_key_c, rollup_shard_sp> key_to_shard;  // they never overlap
    rollup_shard_latency_t latency;
    stats_handle_t *online_shards, *offline_shards, *corrupt_shards;
    uint64_t fsid = 0, space_total = 0, space_avail = 0;
    double cratio = 1.0;
  };

  void add_period(const rollup_period_params_t &params) REQUIRES(_all_shards_shared_mutex);
  void scan() REQUIRES(_all_shards_shared_mutex);
  void scan_entry(const std::string &name) REQUIRES(_all_shards_shared_mutex);
  rollup_shard_sp make_shard(period_settings_t *settings, const rollup_shard_key_c &key)
      REQUIRES(_all_shards_shared_mutex);
  found_t create_shard(period_settings_t *settings, uint64_t ts) REQUIRES(_all_shards_shared_mutex);
  const period_settings_t *find_settings(int32_t period) const REQUIRES_SHARED(_all_shards_shared_mutex);
  found_t find_shard(uint64_t ts, int32_t period, shard_modes_c acceptable_modes) const
      REQUIRES_SHARED(_all_shards_shared_mutex);
  std::vector<rollup_shard_sp> snapshot(int32_t period) const;
  static rollup_shard_sp shard_at(const period_settings_t &settings, uint64_t ts);
  static uint64_t absolute_epoch_at(const rollup_period_params_t &params, uint64_t now_s);
  void delete_shard(const rollup_shard_key_c &key);

  const std::string _root_path;
  const uint64_t _minimum_shard_floor;
  const clock_c &m_clock;
  const rollup_shard_provider_c _provider_shard;
  mutable krel_shared_mutex_c _all_shards_shared_mutex;
  std::map<int32_t, period_settings_t> _period_settings GUARDED_BY(_all_shards_shared_mutex);
  std::unordered_map<rollup_shard_key_c, std::shared_ptr<rollup_shard_anchor_c>, rollup_shard_key_hash_t>
      _shard_key_to_anchor GUARDED_BY(_all_shards_shared_mutex);
};

}  // namespace db::ranged::nntbs
