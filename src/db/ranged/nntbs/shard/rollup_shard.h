#pragma once
// One rollup shard as its users see it: all blocks of one period and span of time, behind transactions.
//
// A user holds a reference for as long as it uses the shard. Within it, a thread has at most one transaction of
// a shard at a time: a transaction shares the shard's lock, which resizing wants exclusively. For the same
// reason a walk over many blocks ends its transaction now and then and goes on from the last key in a new one.
// All operations but the plain getters block on the disk.

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "db/maintenance/shard_maintenance_mode.h"
#include "db/ranged/nntbs/shard/nntbs_block.h"
#include "db/ranged/nntbs/shard/rollup_shard_anchor.h"
#include "db/ranged/nntbs/shard/rollup_shard_key.h"
#include "db/ranged/nntbs/shard/storage_error.h"
#include "util/intrusive_ptr.h"

namespace db::ranged::nntbs {

enum class shard_txn_state_e { init = 0, writable = 1, readable = 2, done = 3 };

// Not for two threads at once; a read may pass from one thread to another. Destroying it ends it; what was
// written and not committed is then dropped. Use in a wrong state is fatal. After an error other than
// not_found a write is at its end: abort it.
class rollup_shard_txn_c {
 public:
  virtual ~rollup_shard_txn_c() = default;
  // In the order of the keys; not_found at the end. block may be null.
  virtual std::error_code seek_to_first(uint64_t *sid, uint64_t *block_floor, nntbs_block_t *block) = 0;
  virtual std::error_code next(uint64_t *sid, uint64_t *block_floor, nntbs_block_t *block) = 0;
  // The first block of sid at or behind *block_floor, which is set to the floor found; not_found when there is
  // none. A block that is shorter on disk is filled with zeros.
  virtual std::error_code seek(uint64_t sid, uint64_t *block_floor, nntbs_block_t *block) = 0;
  // Replaces what is there. map_full, here or from commit_write: the transaction is gone, the shard has grown,
  // and the work is to be repeated.
  virtual std::error_code put(uint64_t sid, uint64_t block_floor, const nntbs_block_t &block) = 0;
  virtual void stop_read() = 0;
  virtual void abort_write() = 0;
  virtual std::error_code commit_write() = 0;  // ends the transaction whatever it answers
};
using rollup_shard_txn_up = std::unique_ptr<rollup_shard_txn_c>;

class manageable_shard_c {
 public:
  virtual const std::string &path() const = 0;
  virtual shard_maintenance_mode_e maintenance_mode() const = 0;
  // False, logged, when the present mode does not allow it. OFFLINE takes effect with the last user's leave.
  virtual bool request_maintenance(shard_maintenance_mode_e mode) = 0;
  virtual void set_maintenance_mode(shard_maintenance_mode_e mode) = 0;
  // Waits until a change of mode that is under way is done. The caller's is the only reference it counts on.
  virtual void wait_for_maintenance_mode() = 0;
  virtual void add_ref() = 0;
  virtual void release_ref() = 0;  // the last one closes the storage and frees the shard

 protected:
  virtual ~manageable_shard_c() = default;
};

class rollup_shard_c : public manageable_shard_c {
 public:
  virtual rollup_shard_anchor_c &get_anchor() = 0;
  virtual uint64_t get_resize_gen() const = 0;  // how often the shard has grown
  virtual uint64_t ceiling_s() const = 0;
  virtual uint64_t floor_s() const = 0;
  virtual int32_t period_s() const = 0;
  // Opens the storage unless it is open. A storage that cannot be opened makes the shard OFFLINE_CORRUPTED.
  virtual std::error_code open(shard_modes_c acceptable_modes) = 0;
  virtual bool contains(uint64_t t) const = 0;
  // Opens the storage when it is closed. wrong_mode for a shard that is offline.
  virtual std::pair<std::error_code, rollup_shard_txn_up> start_read_transaction() = 0;
  virtual std::pair<std::error_code, rollup_shard_txn_up> start_write_transaction() = 0;
  virtual std::error_code delete_underlying_storage() = 0;  // closes it and removes its files
  // Renames the directory out of the way; returns where it is now, none when the storage is in use for longer
  // than the timeout. A failure is fatal.
  virtual std::string prep_for_storage_deletion(std::chrono::milliseconds timeout) = 0;
  virtual std::error_code close_underlying_storage() = 0;
  // Makes the map larger unless that was done since `gen` was read. A failure is fatal.
  virtual void resize(uint64_t gen) = 0;
};

class manageable_rollup_shard_c : public rollup_shard_c {
 public:
  static std::error_code delete_underlying_storage(const std::string &path);  // a renamed directory
  using rollup_shard_c::delete_underlying_storage;
  // Drops a metric's cells before new_epoch, where the engine can.
  virtual std::error_code delete_before(uint64_t sid, uint64_t new_epoch) = 0;
  virtual bool close_underlying_storage_if_unused() = 0;  // true: it is closed
  // The time of the metric's first (or last) cell here; false when it has none.
  virtual bool get_timestamp(uint64_t sid, bool first, uint64_t *ts) = 0;
  virtual const rollup_shard_key_c &get_key() const = 0;
};

inline void intrusive_ptr_add_ref(manageable_rollup_shard_c *shard) {
  shard->add_ref();
}
inline void intrusive_ptr_release(manageable_rollup_shard_c *shard) {
  shard->release_ref();
}
using rollup_shard_sp = util::mem::intrusive_ptr<manageable_rollup_shard_c>;

}  // namespace db::ranged::nntbs
