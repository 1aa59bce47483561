#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/krel/event/krelev.h"

// Counts up; waits, with a bound far beyond any need, until it has got somewhere.
class counter_c {
 public:
  void add(int n = 1) {
    std::lock_guard lock(m_mutex);
    m_count += n;
    m_changed.notify_all();
  }
  int get() {
    std::lock_guard lock(m_mutex);
    return m_count;
  }
  [[nodiscard]] bool reaches(int n) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_count >= n; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_count = 0;
};

// For what nobody announces: asks again and again.
[[nodiscard]] inline bool becomes_true(const std::function<bool()> &condition) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    sched_yield();
  }
  return false;
}

// A running event system with these keys.
class krelev_run_c {
 public:
  struct key_t {
    const char *key;
    std::string value;
  };
  krelev_run_c() : krelev_run_c({{"concurrency", "2"}}) {}
  explicit krelev_run_c(std::initializer_list<key_t> keys) {
    for (const key_t &key : keys) krelev_config(key.key, key.value.c_str());
    EXPECT_EQ(krelev_init(), 0);
    krelev_start_threads();
  }
  ~krelev_run_c() { stop(); }
  krelev_run_c(const krelev_run_c &) = delete;
  void stop() {
    if (!std::exchange(m_stopped, true)) krelev_stop();
  }

 private:
  bool m_stopped = false;
};

inline krelev_jobq_figures_t figures_of(krelev_jobq_t *jobq) {
  krelev_jobq_figures_t out{};
  krelev_jobq_for_each([&](const krelev_jobq_figures_t &figures) {
    if (figures.name == krelev_jobq_name(jobq)) out = figures;
  });
  return out;
}

// A job from lambdas: `work` on the queue, `complete` on the owner's loop.
class lambda_job_c {
 public:
  static krelev_event_t make(std::function<void()> work, std::function<void()> complete) {
    return krelev_alloc_asynch(callback, new lambda_job_c{std::move(work), std::move(complete)});
  }
  static int callback(krelev_event_t, int mask, void *closure, const struct timeval *) {
    auto *job = static_cast<lambda_job_c *>(closure);
    if (mask == KRELEV_ASYNCH_WORK && job->m_work) job->m_work();
    if (mask == KRELEV_ASYNCH_COMPLETE) {
      if (job->m_complete) job->m_complete();
      delete job;
    }
    return 0;
  }
  static void free(krelev_event_t event) {
    delete static_cast<lambda_job_c *>(krelev_get_closure(event));
    krelev_free(event);
  }

 private:
  lambda_job_c(std::function<void()> work, std::function<void()> complete)
      : m_work(std::move(work)), m_complete(std::move(complete)) {}
  std::function<void()> m_work, m_complete;
};
