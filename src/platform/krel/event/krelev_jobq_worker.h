#pragma once
// A thread of a job queue, as the queue's two files know it.

#include <thread>

#include "platform/krel/event/krelev_jobq.h"

struct krelev_jobq_t::worker_t {
  explicit worker_t(uint32_t index_) : index(index_) {}

  const uint32_t index;
  std::thread thread;
  krelev_futex_c futex;
  // ---- under the queue's mutex
  bool alive = false;        // has a thread that counts
  bool listed_idle = false;  // is in m_idle
  // ---- the worker's own
  krelev_spin_c spin;
  uint64_t started_ns = 0;  // of the job that runs or ran last
  uint64_t waited_ns = 0;   // that job, in the queue
  uint64_t ended_ns = 0;
  uint64_t idle_since_ns = 0;  // 0 while it has work
  uint64_t maintained_ns = 0;
};
