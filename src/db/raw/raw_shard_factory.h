#pragma once
// A raw store: its directory, its shards, and the rules by which they come and go.

#include <memory>
#include <string>
#include <vector>

#include "db/raw/granule_adjust.h"
#include "db/raw/raw_shard.h"
#include "db/raw/raw_shard_cache.h"
#include "db/raw/shard_metadata.h"
#include "platform/krel/base/thread_annotations.h"

namespace db::raw {

enum open_type_e { MUST_EXIST = 1, CREATE_IF_MISSING = 2 };

// Durations in seconds.
struct raw_shard_factory_params_t {
  std::string basedir;
  std::string description;  // "raw numeric"
  uint64_t granularity_s = 7 * 86400;
  uint64_t min_delete_age_s = 28 * 86400;
  uint64_t rollup_after_quiescent_age_s = 8 * 3600;
  uint64_t delete_after_quiescent_age_s = 32 * 3600;
  uint64_t max_clock_skew_s = 7 * 86400;
  uint64_t startup_rollup_delay_s = 1800;
  bool rolls_up = true;  // false: its shards are neither rolled up nor deleted by their own timers
  raw_rollable_factory_c *db_factory = nullptr;
  tolv_timed::factory_c *timer_factory = nullptr;
};

// Safe from any thread; everything may block on the disk.
class raw_shard_factory_c {
 public:
  explicit raw_shard_factory_c(const raw_shard_factory_params_t &params);
  ~raw_shard_factory_c();

  // Opens the shards that are on disk, in parallel. Once, before use. A shard whose database cannot be opened
  // is logged with its remedy and stays offline; the others serve.
  void scan();

  // The shard of the time, or (null, with the gap's bounds) none: it does not exist, may not be made, or is
  // offline.
  found_shard_t find_shard_for(uint64_t ts_ms, open_type_e open_type);
  shard_sp find_shard_for_ts_even_if_offline(uint64_t ts_ms) const;
  bool shards_exist(uint64_t start_s, uint64_t end_s) const;
  void enumerate_shards(const std::function<bool(const shard_sp &)> &function) const {
    _shard_cache.for_each(function);
  }
  const raw_shard_cache_c &get_cache() const { return _shard_cache; }

  void set_manager(shard_manager_c *manager) { _manager.store(manager); }
  // The manager has ended a step of this shard.
  void manager_done(const shard_sp &shard);
  // The same for a step that could not be taken now.
  void ask_again_later(const shard_sp &shard);
  // Deletes the shard, or sets the time to ask again. Only what was rolled up goes.
  void try_delete_shard(const shard_sp &shard);
  // Deletes it whatever its age and state; false, logged: it is in use or cannot be moved away.
  bool delete_shard(const shard_sp &shard);
  // The second before which no raw sample of a suppressed metric is left; 0: there is none.
  uint64_t get_suppressed_end_s() const;
  const std::string &get_basedir() const { return m_params.basedir; }

  // Tries again to open the shards that could not be opened at the start: the disk may have been full, or the
  // directory has been mended meanwhile. Now and then, on a thread that may block.
  void reopen_failed();

  // Closes every database; the store takes and gives nothing afterwards. At the node's end.
  void close_all();

 private:
  shard_sp shard_create_private(uint64_t start_s, uint64_t end_s, open_type_e open_type, bool at_start);
  void found_shard_dir(uint64_t start_s, uint64_t end_s, const std::string &dir);
  bool calc_delete_timeout(raw_shard_c *shard, uint64_t *when_s) const;
  bool close_underlying_storage_for_delete(const std::shared_ptr<raw_shard_c> &shard);
  uint64_t now_s() const { return static_cast<uint64_t>(m_params.timer_factory->get_clock()->get_time_s()); }

  const raw_shard_factory_params_t m_params;
  const granule_adjust_c _granule_adjust;
  const shard_metadata_impl_c _metadata_read;
  raw_shard_cache_c _shard_cache;
  std::atomic<shard_manager_c *> _manager{nullptr};
  krel_mutex_c m_failed_mutex;
  std::vector<std::shared_ptr<raw_shard_c>> m_failed GUARDED_BY(m_failed_mutex);
};

}  // namespace db::raw
