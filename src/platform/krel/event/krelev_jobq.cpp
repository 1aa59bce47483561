// The queue as its users see it; what its threads do is in krelev_jobq_worker.cpp.
#include "platform/krel/event/krelev_jobq.h"

#include <algorithm>
#include <system_error>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_jobq_worker.h"
#include "platform/krel/event/krelev_thread.h"

constexpr uint64_t k_idle_limit_ns = 5000000000;

krelev_jobq_t::krelev_jobq_t(std::string name, const krelev_jobq_settings_t &settings)
    : m_max_backlog(settings.max_backlog),
      m_concurrency(settings.concurrency),
      m_wanted_concurrency(settings.concurrency),
      m_min(settings.min),
      m_max(settings.max),
      m_floor(settings.min),
      m_idle_limit_ns(k_idle_limit_ns),
      m_name(std::move(name)),
      m_memory_safety(settings.memory_safety),
      m_configured(settings.configured),
      m_lifo(settings.lifo) {
  krel_lock_c lock(m_mutex);
  clamp();
}

krelev_jobq_t::~krelev_jobq_t() {
  shutdown();
  krel_lock_c lock(m_mutex);
  sort_inbox();
  while (krelev_job_c *job = m_ready.pop_front()) job->drop();
  while (krelev_job_c *job = m_subqueues.take_any()) job->drop();
}

void krelev_jobq_t::add(krelev_job_c *job) {
  m_backlog.fetch_add(1, std::memory_order_relaxed);
  enqueue(job);
}

bool krelev_jobq_t::try_add(krelev_job_c *job) {
  if (m_shut.load(std::memory_order_acquire)) return false;
  uint32_t limit = m_max_backlog.load(std::memory_order_relaxed);
  if (m_backlog.fetch_add(1, std::memory_order_relaxed) >= limit && limit != 0) {
    m_backlog.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  enqueue(job);
  return true;
}

void krelev_jobq_t::enqueue(krelev_job_c *job) {
  job->queued_ns = krel_gethrtime();
  m_inbox.push(job);
  if (m_wants_wake.load(std::memory_order_seq_cst)) rouse();
}

void krelev_jobq_t::rouse() {
  worker_t *worker;
  {
    krel_lock_c lock(m_mutex);
    worker = pick_for_work();
  }
  if (worker != nullptr) worker->futex.wake();
}

uint32_t krelev_jobq_t::allowed() const {
  return m_shut.load(std::memory_order_relaxed) ? 0 : m_concurrency;
}

void krelev_jobq_t::publish_want() {
  bool want = m_searching == 0 && (!m_idle.empty() || m_threads < allowed());
  if (want != m_wants_wake.load(std::memory_order_relaxed)) m_wants_wake.store(want, std::memory_order_seq_cst);
}

// Chooses who takes what has come: a worker to be woken once the mutex is free, or null when one is
// searching, when a thread was started for it, or when none can be had.
krelev_jobq_t::worker_t *krelev_jobq_t::pick_for_work() {
  worker_t *worker = nullptr;
  if (m_searching == 0) {
    if (!m_idle.empty()) {
      worker = m_idle.back();
      m_idle.pop_back();
      worker->listed_idle = false;
      ++m_searching;
    } else if (m_threads < allowed()) {
      spawn();
    }
  }
  publish_want();
  return worker;
}

void krelev_jobq_t::wake_all_idle() {
  for (worker_t *worker : m_idle) {
    worker->listed_idle = false;
    ++m_searching;
    worker->futex.wake();
  }
  m_idle.clear();
  publish_want();
}

void krelev_jobq_t::spawn() {
  uint32_t index = 0;
  while (index < m_workers.size() && m_workers[index]->alive) ++index;
  if (index == m_workers.size()) m_workers.push_back(std::make_unique<worker_t>(index));
  worker_t &worker = *m_workers[index];
  if (worker.thread.joinable()) worker.thread.join();  // it let go of the mutex for good: no wait
  try {
    worker.thread = krelev_spawn([this, &worker] { work(worker); });
  } catch (const std::system_error &e) {
    if (m_threads == 0) krel_fatal("no thread for job queue %s: %s\n", m_name.c_str(), e.what());
    krel_log(krel_error, "no further thread for job queue %s: %s\n", m_name.c_str(), e.what());
    return;
  }
  worker.alive = true;
  ++m_threads;
  ++m_searching;
}

void krelev_jobq_t::clamp() {
  uint32_t top = m_max == 0 ? UINT32_MAX : m_max;
  m_concurrency = std::clamp(m_wanted_concurrency, std::max(m_min, 1u), std::max({m_min, top, 1u}));
}

void krelev_jobq_t::set_concurrency(uint32_t threads) {
  krel_lock_c lock(m_mutex);
  m_wanted_concurrency = threads;
  clamp();
  wake_all_idle();  // whoever is one too many ends; what waits for a further thread gets one
  if (has_work()) pick_for_work();
}

void krelev_jobq_t::set_min_max(uint32_t min, uint32_t max) {
  krel_assert(max == 0 || min <= max);
  krel_lock_c lock(m_mutex);
  m_min = min;
  m_max = max;
  m_floor = min;
  clamp();
  wake_all_idle();
}

void krelev_jobq_t::get_min_max(uint32_t *min, uint32_t *max) const {
  krel_lock_c lock(m_mutex);
  *min = m_min;
  *max = m_max;
}

void krelev_jobq_t::set_floor(uint32_t threads) {
  krel_lock_c lock(m_mutex);
  m_floor = threads;
  wake_all_idle();
}

void krelev_jobq_t::set_idle_limit(uint64_t ns) {
  krel_lock_c lock(m_mutex);
  m_idle_limit_ns = ns;
  wake_all_idle();
}

void krelev_jobq_t::wait_idle() {
  krel_lock_c lock(m_mutex);
  ++m_watchers;
  while (!m_shut.load(std::memory_order_relaxed) &&
         (m_running > 0 || m_backlog.load(std::memory_order_relaxed) > 0))
    m_changed.wait(lock);
  --m_watchers;
}

void krelev_jobq_t::shutdown() {
  krel_assert(!krelev_in_loop());
  krel_lock_c lock(m_mutex);
  ++m_watchers;
  m_draining = true;
  wake_all_idle();
  while (m_threads > 0 || (has_work() && !m_shut.load(std::memory_order_relaxed))) {
    if (m_threads == 0) pick_for_work();
    m_changed.wait(lock);
  }
  m_shut.store(true, std::memory_order_release);
  m_changed.notify_all();
  publish_want();
  for (const auto &worker : m_workers)
    if (worker->thread.joinable()) worker->thread.join();
  --m_watchers;
}

krelev_jobq_figures_t krelev_jobq_t::figures() const {
  krel_lock_c lock(m_mutex);
  return {.name = m_name,
          .concurrency = m_concurrency,
          .min = m_min,
          .max = m_max,
          .max_backlog = m_max_backlog.load(std::memory_order_relaxed),
          .threads = m_threads,
          .backlog = m_backlog.load(std::memory_order_relaxed),
          .in_flight = m_running,
          .total = m_total,
          .wait_mean_us = m_wait.mean_us(),
          .wait_p99_us = m_wait.quantile_us(0.99),
          .run_mean_us = m_run.mean_us(),
          .run_p99_us = m_run.quantile_us(0.99)};
}
