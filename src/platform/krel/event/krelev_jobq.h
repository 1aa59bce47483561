#pragma once
// A job queue: jobs come in through a lock-free inbox, its threads sort them under a mutex and take one
// each.
//
// Who wakes whom. A worker that looks for work is "searching". A producer wakes (or starts) a worker only
// while none is searching and one could be had; that is what m_wants_wake says. A worker that takes a job
// and leaves more behind wakes the next one. So a burst of jobs costs its producer one wake at most.
// No job is left behind: a producer pushes, then reads m_wants_wake; a worker that stops searching sets
// m_wants_wake, then looks into the inbox once more.

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev_futex.h"
#include "platform/krel/event/krelev_inbox.h"
#include "platform/krel/event/krelev_job.h"
#include "platform/krel/event/krelev_latency.h"
#include "platform/krel/event/krelev_spin.h"
#include "platform/krel/event/krelev_subqueue.h"

struct krelev_jobq_settings_t {
  uint32_t concurrency = 1;
  uint32_t min = 1;
  uint32_t max = 0;  // 0: no bound
  bool memory_safety = false;
  uint32_t max_backlog = 0;  // 0: no limit
  bool lifo = false;
  bool configured = false;
};

struct krelev_jobq_t {
 public:
  krelev_jobq_t(std::string name, const krelev_jobq_settings_t &settings);
  ~krelev_jobq_t();  // after shutdown; drops what was added since
  krelev_jobq_t(const krelev_jobq_t &) = delete;
  krelev_jobq_t &operator=(const krelev_jobq_t &) = delete;

  const std::string &name() const { return m_name; }
  bool memory_safety() const { return m_memory_safety; }
  bool configured() const { return m_configured; }

  void add(krelev_job_c *job);
  bool try_add(krelev_job_c *job);  // false: the backlog limit is reached, the job stays the caller's

  void set_concurrency(uint32_t threads) EXCLUDES(m_mutex);
  void set_min_max(uint32_t min, uint32_t max) EXCLUDES(m_mutex);
  void get_min_max(uint32_t *min, uint32_t *max) const EXCLUDES(m_mutex);
  void set_floor(uint32_t threads) EXCLUDES(m_mutex);
  void set_max_backlog(uint32_t jobs) { m_max_backlog.store(jobs, std::memory_order_relaxed); }
  void set_idle_limit(uint64_t ns) EXCLUDES(m_mutex);  // after which a thread above the floor ends

  void wait_idle() EXCLUDES(m_mutex);  // until nothing is queued or running, or it is shut
  void shutdown() EXCLUDES(m_mutex);   // runs what is queued, joins the threads; once or more
  krelev_jobq_figures_t figures() const EXCLUDES(m_mutex);

 private:
  struct worker_t;

  void enqueue(krelev_job_c *job);
  void rouse() EXCLUDES(m_mutex);
  uint32_t allowed() const REQUIRES(m_mutex);
  void clamp() REQUIRES(m_mutex);
  void publish_want() REQUIRES(m_mutex);
  worker_t *pick_for_work() REQUIRES(m_mutex);
  void wake_all_idle() REQUIRES(m_mutex);
  void spawn() REQUIRES(m_mutex);

  // ---- on a worker's thread
  void work(worker_t &worker) EXCLUDES(m_mutex);
  void run_job(worker_t &worker, krelev_job_c *job) EXCLUDES(m_mutex);
  void account(worker_t &worker, uint64_t subqueue) REQUIRES(m_mutex);
  krelev_job_c *take(worker_t &worker) REQUIRES(m_mutex);
  bool look_or_sleep(worker_t &worker) REQUIRES(m_mutex);
  bool look(worker_t &worker) REQUIRES(m_mutex);   // lets go of the mutex meanwhile
  bool sleep(worker_t &worker) REQUIRES(m_mutex);  // likewise
  void leave(worker_t &worker) REQUIRES(m_mutex);
  void sort_inbox() REQUIRES(m_mutex);
  void make_ready(krelev_job_c *job) REQUIRES(m_mutex);
  bool has_work() const REQUIRES(m_mutex) { return !m_ready.empty() || !m_inbox.empty(); }

  // Written by producers.
  alignas(64) krelev_inbox_c<krelev_job_c> m_inbox;
  std::atomic<uint64_t> m_backlog{0};  // queued and not yet running, wherever
  // Read by producers.
  alignas(64) std::atomic<bool> m_wants_wake{true};
  std::atomic<uint32_t> m_max_backlog;
  std::atomic<bool> m_shut{false};        // set once, under the mutex: no job runs any more
  std::atomic<uint32_t> m_ready_hint{0};  // jobs in m_ready, for a look without the mutex

  alignas(64) mutable krel_mutex_c m_mutex;  // all below; held for short, never while a job runs
  krelev_job_list_c m_ready GUARDED_BY(m_mutex);
  krelev_subqueues_c m_subqueues GUARDED_BY(m_mutex);
  uint32_t m_concurrency GUARDED_BY(m_mutex);
  uint32_t m_wanted_concurrency GUARDED_BY(m_mutex);  // as asked for, before min and max
  uint32_t m_min GUARDED_BY(m_mutex);
  uint32_t m_max GUARDED_BY(m_mutex);
  uint32_t m_floor GUARDED_BY(m_mutex);
  uint64_t m_idle_limit_ns GUARDED_BY(m_mutex);
  uint32_t m_threads GUARDED_BY(m_mutex) = 0;
  uint32_t m_searching GUARDED_BY(m_mutex) = 0;
  uint32_t m_running GUARDED_BY(m_mutex) = 0;
  uint32_t m_watchers GUARDED_BY(m_mutex) = 0;  // threads in wait_idle or shutdown
  bool m_draining GUARDED_BY(m_mutex) = false;
  uint64_t m_total GUARDED_BY(m_mutex) = 0;
  krelev_latency_c m_wait GUARDED_BY(m_mutex);
  krelev_latency_c m_run GUARDED_BY(m_mutex);
  std::vector<worker_t *> m_idle GUARDED_BY(m_mutex);  // asleep, the latest last
  // By index. A record outlives its thread and is used again: a late wake may still reach it.
  std::vector<std::unique_ptr<worker_t>> m_workers GUARDED_BY(m_mutex);
  std::condition_variable_any m_changed;  // with m_mutex: a worker ended or ran out of work

  const std::string m_name;
  const bool m_memory_safety;
  const bool m_configured;
  const bool m_lifo;
};

// All queues of a run, by name.
class krelev_jobqs_c {
 public:
  static krelev_jobqs_c &get();
  krelev_jobq_t *create(const std::string &name, const krelev_jobq_settings_t &settings);  // null: taken
  krelev_jobq_t *find(const std::string &name);
  krelev_jobq_t *default_queue();  // asserts that krelev_init was called
  void destroy(krelev_jobq_t *jobq);
  void wait_all_idle();
  uint64_t added();  // jobs so far, of all queues
  void shutdown_all();
  void destroy_all();
  std::vector<krelev_jobq_figures_t> figures();

 private:
  std::vector<krelev_jobq_t *> all() EXCLUDES(m_mutex);

  krel_mutex_c m_mutex;
  std::map<std::string, std::unique_ptr<krelev_jobq_t>> m_queues GUARDED_BY(m_mutex);
  std::atomic<krelev_jobq_t *> m_default{nullptr};
};

constexpr const char *k_krelev_default_queue = "default_queue";
