// What the threads of a job queue do.
#include "platform/krel/event/krelev_jobq_worker.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_thread.h"

namespace {

constexpr uint64_t k_maintain_every_ns = 1000000;
constexpr uint64_t k_first_sleep_ns = 1000000000;

}  // namespace

// The whole life of a worker; it counts as searching from its start.
void krelev_jobq_t::work(worker_t &worker) {
  krel_thread_setname(fmt::format("{}/{}", m_name, worker.index).c_str());
  krel_memory_init_thread();
  worker.idle_since_ns = 0;
  {
    krel_lock_c lock(m_mutex);
    --m_searching;
    while (krelev_job_c *job = take(worker)) {
      uint64_t subqueue = job->subqueue;
      lock.unlock();
      run_job(worker, job);
      lock.lock();
      account(worker, subqueue);
    }
    leave(worker);
  }
  krel_memory_fini_thread();
}

// Decided under the same hold of the mutex as the leaving itself, so that no two leave for one reason.
void krelev_jobq_t::leave(worker_t &worker) {
  --m_threads;
  publish_want();
  // Jobs that producers left to the threads there are, this one among them.
  worker_t *other = has_work() ? pick_for_work() : nullptr;
  if (other != nullptr) other->futex.wake();
  worker.alive = false;
  m_changed.notify_all();
}

void krelev_jobq_t::run_job(worker_t &worker, krelev_job_c *job) {
  worker.started_ns = krel_gethrtime();
  worker.waited_ns = worker.started_ns - job->queued_ns;
  if (m_memory_safety) krel_memory_begin();
  job->work();
  krelev_close_sections();
  job->finish();
  worker.ended_ns = krel_gethrtime();
  if (worker.ended_ns - worker.maintained_ns > k_maintain_every_ns) {
    worker.maintained_ns = worker.ended_ns;
    krel_memory_maintenance_ex(1);
  }
}

void krelev_jobq_t::account(worker_t &worker, uint64_t subqueue) {
  --m_running;
  ++m_total;
  m_wait.add(worker.waited_ns);
  m_run.add(worker.ended_ns - worker.started_ns);
  if (subqueue == KRELEV_NO_SUBQUEUE) return;
  if (krelev_job_c *next = m_subqueues.leave(subqueue)) make_ready(next);
}

void krelev_jobq_t::make_ready(krelev_job_c *job) {
  if (m_lifo)
    m_ready.push_front(job);
  else
    m_ready.push_back(job);
  m_ready_hint.fetch_add(1, std::memory_order_relaxed);
}

void krelev_jobq_t::sort_inbox() {
  for (krelev_job_c *job = m_inbox.take_all(); job != nullptr;) {
    krelev_job_c *next = job->next;
    if (job->subqueue == KRELEV_NO_SUBQUEUE || m_subqueues.enter(job)) make_ready(job);
    job = next;
  }
}

// The next job, or null when this thread shall end.
krelev_job_c *krelev_jobq_t::take(worker_t &worker) {
  for (;;) {
    sort_inbox();
    if (m_threads > allowed()) return nullptr;
    if (krelev_job_c *job = m_ready.pop_front()) {
      m_ready_hint.fetch_sub(1, std::memory_order_relaxed);
      m_backlog.fetch_sub(1, std::memory_order_relaxed);
      ++m_running;
      if (worker.idle_since_ns != 0) worker.spin.gap(krel_gethrtime() - worker.idle_since_ns);
      worker.idle_since_ns = 0;
      publish_want();
      if (has_work()) {
        if (worker_t *other = pick_for_work()) other->futex.wake();
      }
      return job;
    }
    if (m_watchers > 0) m_changed.notify_all();
    if (m_draining || !look_or_sleep(worker)) return nullptr;
  }
}

bool krelev_jobq_t::look_or_sleep(worker_t &worker) {
  bool just_idle = worker.idle_since_ns == 0;
  if (just_idle) {
    worker.idle_since_ns = krel_gethrtime();
    if (worker.spin.worthwhile() && look(worker)) return true;
  }
  return sleep(worker);
}

// Looks for some microseconds; true when it is worth sorting again.
bool krelev_jobq_t::look(worker_t &worker) {
  ++m_searching;
  publish_want();
  m_mutex.unlock();
  krelev_spin_c::spin(worker.idle_since_ns, krel_gethrtime,
                      [this] { return !m_inbox.empty() || m_ready_hint.load(std::memory_order_relaxed) != 0; });
  m_mutex.lock();
  --m_searching;
  return has_work() || m_draining;
}

// Sleeps until it is woken or its time is over; false when it was idle for too long.
bool krelev_jobq_t::sleep(worker_t &worker) {
  uint64_t idle_ns = krel_gethrtime() - worker.idle_since_ns;
  bool spare = m_threads > std::min(m_floor, m_concurrency);
  if (spare && idle_ns >= m_idle_limit_ns) return false;
  m_idle.push_back(&worker);
  worker.listed_idle = true;
  publish_want();
  if (m_inbox.empty()) {
    // The first sleep is short: what the thread has freed may go once the sections of today are closed.
    uint64_t timeout = idle_ns < k_first_sleep_ns ? k_first_sleep_ns : krelev_futex_c::k_forever;
    if (spare) timeout = std::min(timeout, m_idle_limit_ns - idle_ns);
    m_mutex.unlock();
    krel_memory_maintenance_ex(1);
    worker.futex.wait(timeout);
    m_mutex.lock();
  }
  if (worker.listed_idle) {
    std::erase(m_idle, &worker);
    worker.listed_idle = false;
    publish_want();
  } else {
    --m_searching;  // whoever woke this thread counted it
  }
  return true;
}
