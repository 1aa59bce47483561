#pragma once
// What a queue runs. A job disposes of itself: exactly one of finish and drop is called in the end.

#include <cstdint>

#include "platform/krel/event/krelev.h"

class krelev_job_c {
 public:
  virtual void work() noexcept = 0;    // on a queue thread, inside an epoch where the queue has them
  virtual void finish() noexcept = 0;  // right after it, outside the epoch; hands the result on
  virtual void drop() noexcept = 0;    // it will never run

  krelev_job_c *next = nullptr;
  uint64_t subqueue = KRELEV_NO_SUBQUEUE;
  uint64_t queued_ns = 0;

 protected:
  ~krelev_job_c() = default;
};

class krelev_job_list_c {
 public:
  bool empty() const { return m_first == nullptr; }
  void push_back(krelev_job_c *job) {
    job->next = nullptr;
    if (m_first == nullptr)
      m_first = job;
    else
      m_last->next = job;
    m_last = job;
  }
  void push_front(krelev_job_c *job) {
    job->next = m_first;
    if (m_first == nullptr) m_last = job;
    m_first = job;
  }
  krelev_job_c *pop_front() {
    krelev_job_c *job = m_first;
    if (job != nullptr) m_first = job->next;
    return job;
  }

 private:
  krelev_job_c *m_first = nullptr;
  krelev_job_c *m_last = nullptr;
};
