#include "util/concurrency/tolv_asynch_krel.h"

#include <algorithm>

#include "platform/krel/base/krel_log.h"

namespace tolv_asynch_krel {

namespace {

void apply_params(krelev_jobq_t *jobq, const tolv_asynch::runner_params_t &params) {
  uint32_t min = 0, max = 0;
  krelev_jobq_get_min_max(jobq, &min, &max);
  if (params.min) min = params.min;
  if (params.max) max = params.max;
  if (max && max < params.concurrency) max = params.concurrency;
  if (max) min = std::min(min, max);
  krelev_jobq_set_min_max(jobq, min, max);
  if (params.concurrency) krelev_jobq_set_concurrency(jobq, params.concurrency);
  if (params.floor) krelev_jobq_set_floor(jobq, params.floor);
  if (params.backlog) krelev_jobq_set_max_backlog(jobq, params.backlog);
}

}  // namespace

runner_c::runner_c(const std::string &name, const tolv_asynch::runner_params_t &params)
    : m_jobq(krelev_jobq_retrieve(name.c_str())), preexisting(m_jobq != nullptr) {
  const bool wanted = params.memory_safety, *ms = &wanted;
  if (!preexisting) m_jobq = krelev_jobq_create_ms(name.c_str(), *ms);
  krel_assert(m_jobq != nullptr);
  krel_assert(*ms == krelev_jobq_get_memory_safety(m_jobq));
  if (!krelev_jobq_is_configured(m_jobq)) apply_params(m_jobq, params);
}

runner_c::~runner_c() {
  if (!preexisting) krelev_jobq_destroy(m_jobq);
}

void runner_c::add(krelev_event_t event) {
  krelev_add_asynch(m_jobq, event);
}
bool runner_c::try_add(krelev_event_t event) {
  return krelev_try_add_asynch(m_jobq, event);
}

void default_runner_c::add(krelev_event_t event) {
  krelev_add_asynch(nullptr, event);
}
bool default_runner_c::try_add(krelev_event_t event) {
  return krelev_try_add_asynch(nullptr, event);
}

factory_c &factory_c::get_instance() {
  static factory_c instance;
  return instance;
}

tolv_asynch::runner_c *factory_c::create_runner(const std::string &name,
                                                const tolv_asynch::runner_params_t &params) {
  return new runner_c(name, params);
}

void factory_c::free_runner(tolv_asynch::runner_c *runner) {
  if (runner != &m_default) delete runner;
}

krelev_event_t factory_c::create_cb(krelev_callback_t callback, void *closure) {
  return krelev_alloc_asynch(callback, closure);
}

}  // namespace tolv_asynch_krel
