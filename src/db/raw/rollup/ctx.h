#pragma once
// The manager of one raw store: rolls its shards up one at a time, and deletes them when their time has come.
//
// Threads: schedule_* run on timer threads and hand over to the runners; a pass waits on the rollup runner's
// thread for its jobs on the family runner.

#include <atomic>
#include <map>
#include <memory>

#include "db/raw/raw_shard_factory.h"
#include "db/raw/rollup/rollup_pass.h"
#include "db/raw/rollup/suppressed_metrics.h"
#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/tolv_timed.h"

namespace db::raw {

struct ctx_params_t {
  raw_shard_factory_c *factory = nullptr;
  tolv_timed::factory_c *timer_factory = nullptr;
  runner_f rollup_runner, delete_runner;              // empty: on the caller
  std::function<bool()> is_reconstituting;            // this node is being rebuilt; empty: never
  std::function<const char *()> get_delete_deferral;  // "rebalance" or "reconstitute" while one runs, else null
  std::function<bool()> is_any_reconstituting;        // some node of the cluster is being rebuilt; empty: never
  runner_f cleanup_runner;
  rollup_store_t store;
};

enum class force_rollup_e { submitted, no_shard, in_progress, refused };

class ctx_c : public shard_manager_c {
 public:
  explicit ctx_c(ctx_params_t params);
  ~ctx_c() override;  // after stop

  void schedule_rollup(const shard_sp &shard) override;
  void schedule_delete(const shard_sp &shard) override;
  void run(std::function<void()> function) override;
  void shard_deleted(uint64_t start_s, uint64_t end_s) override;

  // Opens the store's shards. Once, before anything else.
  void start();

  // Rolls the shard of that second up with what is in it now, samples that still arrive or not.
  force_rollup_e force_rollup(uint64_t ts_s);

  // Deletes the names of metrics whose rollups are suppressed and whose last samples are gone, on the cleanup
  // runner. After each delete of a shard, and when somebody asks.
  void clean_rollup_suppressed_metrics();

  // Ends the pass under way, which goes on after the next start, and takes no more. Blocks until it has ended.
  void stop();

 private:
  struct rollup_op_closure_t {
    std::weak_ptr<shard_c> m_shard;
    bool m_forced = false;
  };
  struct delete_delay_t {
    ctx_c *m_container;
    std::weak_ptr<shard_c> m_shard;
    tolv_timed::cb_ptr_t m_timer;
  };

  bool can_roll_up(const shard_sp &shard) const;
  void hand_to_runner(const shard_sp &shard, bool forced);
  void rollup_asynch_cb(const rollup_op_closure_t &closure);
  void roll_up(const shard_sp &shard, bool forced);
  void rollup_complete_cb(const shard_sp &shard, rollup_result_e result);
  uint64_t preceding_start_s(uint64_t start_s, uint64_t end_s) const;
  void sweep_forwarding();
  void delete_asynch_cb(const std::weak_ptr<shard_c> &weak);
  void delay_delete(const shard_sp &shard, const char *reason);
  static int delete_delay_cb(tolv_timed::cb_c *cb, void *closure, const struct timeval *now);
  bool is_reconstituting() const { return m_params.is_reconstituting && m_params.is_reconstituting(); }

  const ctx_params_t m_params;
  suppressed_metrics_c m_suppressed_metrics;
  std::atomic<bool> m_stopping{false};
  krel_mutex_c m_rollup_mutex;  // held for a pass: one at a time
  krel_mutex_c m_delays_mutex;
  std::map<delete_delay_t *, std::unique_ptr<delete_delay_t>> m_delays GUARDED_BY(m_delays_mutex);
  std::atomic<uint64_t> m_deferrals{0};
};

}  // namespace db::raw
