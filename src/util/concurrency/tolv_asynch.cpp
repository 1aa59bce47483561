#include "util/concurrency/tolv_asynch.h"

tolv_asynch_scheduler_t tolv_asynch_create_scheduler(tolv_asynch::factory_c *factory, const std::string &name,
                                                     uint32_t concurrency, bool memory_safety) {
  tolv_asynch::runner_params_t params;
  params.concurrency = concurrency;
  params.memory_safety = memory_safety;
  return {factory, factory->create_runner(name, params)};
}

void tolv_asynch_schedule(const tolv_asynch_scheduler_t *scheduler, krelev_callback_t callback, void *closure) {
  scheduler->runner->add(scheduler->factory->create_cb(callback, closure));
}

void tolv_asynch_destroy_scheduler(tolv_asynch_scheduler_t *scheduler) {
  if (scheduler->runner) scheduler->factory->free_runner(scheduler->runner);
  *scheduler = {};
}
