#pragma once
// A time shard as its users see it, its modes, and the manager that rolls shards up and deletes them.

#include <sys/time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "db/maintenance/shard_maintenance_mode.h"
#include "db/raw/nom/raw_interfaces.h"
#include "db/raw/nom_rollup_progress.h"

namespace db::raw {

using enum db::shard_maintenance_mode_e;

// Which stage of rollup and delete a shard is in.
enum in_manager_e {
  IN_MANAGER_NO = 0,
  IN_MANAGER_ROLLUP_START = 1,
  IN_MANAGER_ROLLUP_RUNNING = 2,
  IN_MANAGER_DELETE_ELIGIBLE = 3,
  IN_MANAGER_DELETE = 4,
};

struct request_maintenance_result_t {
  bool ok = true;
  std::string message;  // why not
};

// Reads and writes go to the shard's database while it is open and the shard is online.
class shard_c : public raw_reader_asynch_c, public raw_writer_asynch_c {
 public:
  virtual uint64_t get_period() const = 0;                           // seconds
  virtual void get_times(uint64_t *start, uint64_t *end) const = 0;  // seconds; end is the first second behind
  virtual shard_maintenance_mode_e maintenance_mode() const = 0;
  virtual const std::string &get_dir_name() const = 0;
  virtual nom_rollup_progress_c &get_rollup_progress() = 0;
  virtual std::shared_ptr<raw_rollable_c> get_db() = 0;  // null while closed
  virtual bool try_start_rollup() = 0;                   // false: samples have arrived since it was scheduled
  virtual bool start_rollup_anyway() = 0;                // the same whether they have or not; true
  // Something its rollup depends on has changed.
  virtual void mark_dirty() = 0;
};

using shard_sp = std::shared_ptr<shard_c>;

// Rolls shards up and deletes them, on queues of its own; each step ends with the factory's manager_done.
class shard_manager_c {
 public:
  virtual ~shard_manager_c() = default;
  virtual void schedule_rollup(const shard_sp &shard) = 0;
  virtual void schedule_delete(const shard_sp &shard) = 0;
  // Runs what may block off the timer's thread, soon.
  virtual void run(std::function<void()> function) { function(); }
  // Its directory is gone; seconds.
  virtual void shard_deleted(uint64_t start_s, uint64_t end_s) {}
};

}  // namespace db::raw
