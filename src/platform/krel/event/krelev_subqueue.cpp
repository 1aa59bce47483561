#include "platform/krel/event/krelev_subqueue.h"

#include "platform/krel/base/krel_log.h"

bool krelev_subqueues_c::enter(krelev_job_c *job) {
  auto [entry, first] = m_waiting.try_emplace(job->subqueue);
  if (!first) entry->second.push_back(job);
  return first;
}

krelev_job_c *krelev_subqueues_c::leave(uint64_t subqueue) {
  auto entry = m_waiting.find(subqueue);
  krel_assert(entry != m_waiting.end());
  if (!entry->second.empty()) return entry->second.pop_front();
  m_waiting.erase(entry);
  return nullptr;
}

krelev_job_c *krelev_subqueues_c::take_any() {
  while (!m_waiting.empty()) {
    auto entry = m_waiting.begin();
    if (!entry->second.empty()) return entry->second.pop_front();
    m_waiting.erase(entry);
  }
  return nullptr;
}
