#pragma once
// Order within sub-queues: of each at most one job is ready or running, the others wait behind it.

#include <cstdint>
#include <unordered_map>

#include "platform/krel/event/krelev_job.h"

class krelev_subqueues_c {
 public:
  // True when the job may run now; otherwise it is kept until its turn.
  bool enter(krelev_job_c *job);
  // The job of that sub-queue has ended: the next one, or null.
  krelev_job_c *leave(uint64_t subqueue);
  // Any kept job, for the end of a queue; null when there is none.
  krelev_job_c *take_any();

 private:
  std::unordered_map<uint64_t, krelev_job_list_c> m_waiting;  // an entry per sub-queue that has a job
};
