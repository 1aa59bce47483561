#include "util/concurrency/tolv_asynch_immediate.h"

#include "platform/krel/base/krel_log.h"

namespace tolv_asynch_immediate {

void runner_c::add(krelev_event_t event) {
  const krelev_callback_t callback = krelev_get_callback(event);
  for (const int mask : {KRELEV_ASYNCH_WORK, KRELEV_ASYNCH_CLEANUP, KRELEV_ASYNCH_COMPLETE}) {
    krel_assert(krelev_get_mask(event) == KRELEV_ASYNCH_COMPLETE);
    struct timeval now;
    m_clock.get_time(&now);
    const int newmask = callback(event, mask, krelev_get_closure(event), &now);
    krel_assert(newmask == 0);
  }
  krelev_free(event);
}

bool runner_c::try_add(krelev_event_t event) {
  add(event);
  return true;
}

runner_c *factory_c::create_runner(const std::string &, const tolv_asynch::runner_params_t &) {
  return new runner_c(m_clock);
}

void factory_c::free_runner(tolv_asynch::runner_c *runner) {
  if (runner != &m_default) delete runner;
}

krelev_event_t factory_c::create_cb(krelev_callback_t callback, void *closure) {
  return krelev_alloc_asynch(callback, closure);
}

}  // namespace tolv_asynch_immediate
