#pragma once
// One shard: a directory with a database, the time of its last write, and the state of its rollup.
//
// Lifecycle: created with its database open and its timer armed. While it is written it stays dirty and the
// timer moves on; once quiet it goes to the manager. Its database can be closed and opened again under a
// shard that others hold (maintenance, delete).
// Concurrency: reads and writes hold _db_mux shared, a write until its closure has ended; opening and closing
// hold it exclusively.

#include <atomic>
#include <functional>
#include <mutex>
#include <shared_mutex>

#include "db/raw/rollup_quiescent_time.h"
#include "db/raw/shard.h"
#include "util/concurrency/tolv_timed.h"

namespace db::raw {

struct raw_shard_params_t {
  std::string dir_name;
  uint64_t start_s, end_s;
  uint64_t quiescent_age_s, startup_rollup_delay_s;
  raw_rollable_factory_c *db_factory;
  tolv_timed::factory_c *timer_factory;
  std::function<shard_manager_c *()> manager;  // null: none yet
  bool rolls_up;                               // else it has no timer
};

class raw_shard_c : public shard_c, public std::enable_shared_from_this<raw_shard_c> {
 public:
  explicit raw_shard_c(const raw_shard_params_t &params);
  ~raw_shard_c() override;  // the timer is cancelled before

  // Opens the database; false, logged, when it cannot be opened.
  bool open_database();
  // Arms the first timer. After the shard is held by a shared pointer.
  void start_timer();
  // Cancels the timer for good; the shard is on its way out.
  void stop_timer();

  // ---- reading and writing
  void find_asynch(const raw_key_c &key, raw_reader_seek_e seek, raw_iter_found_f found,
                   void *closure) override;
  bool read_numeric(uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                    const numeric_samples_f &on_samples, std::string *error) override;
  std::optional<nom_sample_t> find_last_numeric(uint64_t surrogate_id, uint64_t from_ms, uint64_t before_ms,
                                                nulls_e nulls, std::string *error) override;
  void accumulate_all_primary_keys(const std::function<void(uint64_t)> &accumulator) override;
  bool stream_for_reconstitute(uint64_t start_s, uint64_t end_s, void *closure, send_metric_f send_metric,
                               send_block_f send_block) override;
  void write_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) override;
  void write_prev_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) override;
  void write_numeric_asynch(std::span<const nom_sample_t> samples, is_raw_write_closure_t *closure) override;

  // ---- facts
  uint64_t get_period() const override { return m_params.end_s - m_params.start_s; }
  void get_times(uint64_t *start, uint64_t *end) const override {
    *start = m_params.start_s;
    *end = m_params.end_s;
  }
  shard_maintenance_mode_e maintenance_mode() const override { return _maintenance_mode.load(); }
  const std::string &get_dir_name() const override { return m_params.dir_name; }
  nom_rollup_progress_c &get_rollup_progress() override { return m_progress; }
  uint64_t last_write_s() const { return m_quiescent.get_last_write_ts(); }
  std::shared_ptr<raw_rollable_c> get_db() override;
  in_manager_e in_manager() const { return _in_manager.load(); }

  // ---- modes and storage. The timeouts bound the wait for reads and writes under way.
  request_maintenance_result_t request_maintenance_mode(shard_maintenance_mode_e mode,
                                                        std::chrono::milliseconds timeout);
  bool open_underlying_storage(std::chrono::milliseconds timeout);
  bool close_underlying_storage(std::chrono::milliseconds timeout);

  // ---- rollup
  bool try_start_rollup() override;
  bool start_rollup_anyway() override;
  void mark_dirty() override;
  // Takes the shard into the manager; false: it is there already. The armed timer then passes it over.
  bool claim_for_rollup();
  // The next time to look, in seconds, and whether the shard is dirty.
  std::pair<uint64_t, bool> calc_rollup_timeout();
  // Marks it clean, takes it out of the manager and arms the timer for that second, or, when samples have
  // come that are not rolled up yet, for the end of the quiet time if that is sooner.
  void adjust_timeout(uint64_t when_s);
  void set_in_manager(in_manager_e stage) { _in_manager.store(stage); }

 private:
  using shared_lock_t = std::shared_lock<std::shared_timed_mutex>;
  class wrote_wrap_closure_c;

  uint64_t now_s() const { return static_cast<uint64_t>(m_params.timer_factory->get_clock()->get_time_s()); }
  std::shared_ptr<raw_rollable_c> get_online_db(std::string *error);
  uint64_t first_rollup_s();
  void schedule_timeout(uint64_t when_s);
  void arm_timer(uint64_t when_s);  // under m_timer_mutex
  static int rollup_timeout_cb(tolv_timed::cb_c *cb, void *closure, const struct timeval *now);
  void timed_out();
  void cancel_timer();  // under m_timer_mutex
  template <typename Write>
  void write(size_t count, is_raw_write_closure_t *closure, Write write_to);

  const raw_shard_params_t m_params;
  rollup_quiescent_time_c m_quiescent;
  nom_rollup_progress_c m_progress;
  std::shared_timed_mutex _db_mux;      // guards _db
  std::shared_ptr<raw_rollable_c> _db;  // null while closed
  std::atomic<shard_maintenance_mode_e> _maintenance_mode{ONLINE};
  std::timed_mutex _maintenance_mode_mutex;  // one change of the mode at a time; before _db_mux
  std::atomic<in_manager_e> _in_manager{IN_MANAGER_NO};
  std::mutex m_timer_mutex;  // guards m_timer and m_stopped; never held while a timer's callback is waited for
  tolv_timed::cb_ptr_t m_timer;
  bool m_stopped = false;
  tolv_timed::runner_c *const m_timer_runner;
};

}  // namespace db::raw
