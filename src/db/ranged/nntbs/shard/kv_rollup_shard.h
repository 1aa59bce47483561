#pragma once
// A rollup shard over a key-value store: all that does not depend on which one.
//
// The object exists from the scan at start, or from the first write to its time, until it is removed. Its
// environment is opened with the first transaction, when the file is looked at whole (btree_file.h), and can be
// closed and opened again under the object.
// A new data file is made in the subdirectory "creating" and renamed into place complete: a file under its
// final name that is cut short is a damaged one, never one that was being made.

#include <atomic>
#include <memory>
#include <string>

#include "db/ranged/nntbs/shard/kv_engine.h"
#include "db/ranged/nntbs/shard/rollup_shard.h"

namespace db::ranged::nntbs {

class kv_rollup_txn_c;

class kv_rollup_shard_c : public manageable_rollup_shard_c {
 public:
  // initial_map_size 0: the engine's own.
  kv_rollup_shard_c(const rollup_shard_key_c &key, std::shared_ptr<rollup_shard_anchor_c> anchor,
                    std::unique_ptr<kv_env_c> env, uint64_t initial_map_size);

  // A look at the head of the file, where there is one; a bad one makes the shard OFFLINE_CORRUPTED.
  void check_storage();

  const std::string &path() const override { return m_anchor->_shard_path; }
  shard_maintenance_mode_e maintenance_mode() const override { return _maintenance_mode.load(); }
  bool request_maintenance(shard_maintenance_mode_e mode) override;
  void set_maintenance_mode(shard_maintenance_mode_e mode) override { _maintenance_mode.store(mode); }
  void wait_for_maintenance_mode() override;
  void add_ref() override { m_references.fetch_add(1); }
  void release_ref() override;

  rollup_shard_anchor_c &get_anchor() override { return *m_anchor; }
  uint64_t get_resize_gen() const override { return _resize_gen.load(); }
  uint64_t ceiling_s() const override { return m_key.ceiling_s(); }
  uint64_t floor_s() const override { return m_key.floor_s(); }
  int32_t period_s() const override { return m_key.period_s(); }
  const rollup_shard_key_c &get_key() const override { return m_key; }
  bool contains(uint64_t t) const override { return m_key.contains(t); }
  std::error_code open(shard_modes_c acceptable_modes) override;
  std::pair<std::error_code, rollup_shard_txn_up> start_read_transaction() override;
  std::pair<std::error_code, rollup_shard_txn_up> start_write_transaction() override;
  std::error_code delete_underlying_storage() override;
  std::string prep_for_storage_deletion(std::chrono::milliseconds timeout) override NO_THREAD_SAFETY_ANALYSIS;
  std::error_code close_underlying_storage() override;
  bool close_underlying_storage_if_unused() override;
  void resize(uint64_t gen) override;
  bool get_timestamp(uint64_t sid, bool first, uint64_t *ts) override;

 protected:
  ~kv_rollup_shard_c() override;
  std::pair<std::error_code, std::unique_ptr<kv_rollup_txn_c>> start_transaction(bool writable)
      NO_THREAD_SAFETY_ANALYSIS;
  const char *error_text(const std::error_code &error) const { return m_env->error_text(error.value()); }

 private:
  friend class kv_rollup_txn_c;

  bool is_openable() const;
  std::error_code open_locked() REQUIRES(m_anchor->_mutex);
  std::error_code create_storage() REQUIRES(m_anchor->_mutex);
  kv_status_t open_env(const std::string &directory, uint64_t map_size) REQUIRES(m_anchor->_mutex);
  void close_locked() REQUIRES(m_anchor->_mutex);
  void reopen();
  void refuse_storage(const std::string &fault);
  void detected_corruption(const char *where);
  void finish_offline();

  const rollup_shard_key_c m_key;
  const std::shared_ptr<rollup_shard_anchor_c> m_anchor;
  const std::unique_ptr<kv_env_c> m_env;  // opened and closed under the anchor's mutex
  const uint64_t m_initial_map_size;
  std::atomic<int> m_references{0};
  std::atomic<shard_maintenance_mode_e> _maintenance_mode{ONLINE};
  std::atomic<uint64_t> _resize_gen{0};
  std::atomic<int> _open_ref_cnt{0};  // transactions alive
};

// Shards of the two engines. They differ in what can be deleted within them.
class lmdb_rollup_shard_c final : public kv_rollup_shard_c {
 public:
  lmdb_rollup_shard_c(const rollup_shard_key_c &key, std::shared_ptr<rollup_shard_anchor_c> anchor,
                      uint32_t flags, uint64_t initial_map_size)
      : kv_rollup_shard_c(key, std::move(anchor), make_lmdb_env(flags), initial_map_size) {}
  // Nothing: the cells stay until their shard expires.
  std::error_code delete_before(uint64_t, uint64_t) override { return {}; }

 private:
  ~lmdb_rollup_shard_c() override = default;
};

class mdbx_rollup_shard_c final : public kv_rollup_shard_c {
 public:
  mdbx_rollup_shard_c(const rollup_shard_key_c &key, std::shared_ptr<rollup_shard_anchor_c> anchor)
      : kv_rollup_shard_c(key, std::move(anchor), make_mdbx_env(), 0) {}
  std::error_code delete_before(uint64_t sid, uint64_t new_epoch) override;

 private:
  ~mdbx_rollup_shard_c() override = default;
  std::error_code delete_once(uint64_t sid, uint64_t new_epoch);
};

}  // namespace db::ranged::nntbs
