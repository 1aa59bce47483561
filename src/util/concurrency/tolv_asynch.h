#pragma once
// Run this job somewhere. Code that posts jobs is written against these interfaces; production stands on
// job queues (tolv_asynch_krel.h), tests and tools run jobs on the spot (tolv_asynch_immediate.h) or step
// by step (tolv_asynch_mock.h).
//
// A job's callback runs three times and returns 0 each time: with KRELEV_ASYNCH_WORK, then
// KRELEV_ASYNCH_CLEANUP, then KRELEV_ASYNCH_COMPLETE. Then its event is freed.

#include <cstdint>
#include <string>

#include "platform/krel/event/krelev.h"

namespace tolv_asynch {

class runner_c {
 public:
  virtual ~runner_c() = default;
  virtual void add(krelev_event_t event) = 0;      // takes the event over. From any thread
  virtual bool try_add(krelev_event_t event) = 0;  // false when the queue is full: the event stays the caller's
};

// What a runner's queue is given. A 0 leaves what the queue has.
struct runner_params_t {
  uint32_t concurrency = 0;
  bool memory_safety = false;  // threads run inside memory epochs
  uint32_t backlog = 0;        // most jobs waiting
  uint32_t min = 0, max = 0;   // threads
  uint32_t floor = 0;
};

class factory_c {
 public:
  virtual ~factory_c() = default;
  virtual runner_c *get_default_runner() = 0;  // the factory's own; never freed by the caller
  virtual runner_c *create_runner(const std::string &name, const runner_params_t &params) = 0;
  virtual void free_runner(runner_c *runner) = 0;  // runs what is queued first
  virtual krelev_event_t create_cb(krelev_callback_t callback, void *closure) = 0;
};

}  // namespace tolv_asynch

// The plain-function form: a runner of its own with the factory it came from.
struct tolv_asynch_scheduler_t {
  tolv_asynch::factory_c *factory = nullptr;
  tolv_asynch::runner_c *runner = nullptr;
};
tolv_asynch_scheduler_t tolv_asynch_create_scheduler(tolv_asynch::factory_c *factory, const std::string &name,
                                                     uint32_t concurrency, bool memory_safety);
void tolv_asynch_schedule(const tolv_asynch_scheduler_t *scheduler, krelev_callback_t callback, void *closure);
void tolv_asynch_destroy_scheduler(tolv_asynch_scheduler_t *scheduler);  // runs what is queued first
