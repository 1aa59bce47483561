#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev_jobq.h"

krelev_jobqs_c &krelev_jobqs_c::get() {
  static auto *queues = new krelev_jobqs_c;
  return *queues;
}

krelev_jobq_t *krelev_jobqs_c::create(const std::string &name, const krelev_jobq_settings_t &settings) {
  krel_lock_c lock(m_mutex);
  auto [entry, fresh] = m_queues.try_emplace(name);
  if (!fresh) return nullptr;
  entry->second = std::make_unique<krelev_jobq_t>(name, settings);
  if (name == k_krelev_default_queue) m_default.store(entry->second.get(), std::memory_order_release);
  return entry->second.get();
}

krelev_jobq_t *krelev_jobqs_c::find(const std::string &name) {
  krel_lock_c lock(m_mutex);
  auto found = m_queues.find(name);
  return found == m_queues.end() ? nullptr : found->second.get();
}

krelev_jobq_t *krelev_jobqs_c::default_queue() {
  krelev_jobq_t *jobq = m_default.load(std::memory_order_acquire);
  krel_assert(jobq != nullptr);
  return jobq;
}

void krelev_jobqs_c::destroy(krelev_jobq_t *jobq) {
  krel_assert(jobq != m_default.load(std::memory_order_acquire));
  jobq->shutdown();
  std::unique_ptr<krelev_jobq_t> ended;  // its destructor runs without the mutex
  krel_lock_c lock(m_mutex);
  auto found = m_queues.find(jobq->name());
  krel_assert(found != m_queues.end() && found->second.get() == jobq);
  ended = std::move(found->second);
  m_queues.erase(found);
  lock.unlock();
}

std::vector<krelev_jobq_t *> krelev_jobqs_c::all() {
  krel_lock_c lock(m_mutex);
  std::vector<krelev_jobq_t *> out;
  for (const auto &[name, jobq] : m_queues) out.push_back(jobq.get());
  return out;
}

void krelev_jobqs_c::wait_all_idle() {
  for (krelev_jobq_t *jobq : all()) jobq->wait_idle();
}

uint64_t krelev_jobqs_c::added() {
  uint64_t added = 0;
  for (const krelev_jobq_figures_t &f : figures()) added += f.total + f.in_flight + f.backlog;
  return added;
}

std::vector<krelev_jobq_figures_t> krelev_jobqs_c::figures() {
  krel_lock_c lock(m_mutex);
  std::vector<krelev_jobq_figures_t> out;
  for (const auto &[name, jobq] : m_queues) out.push_back(jobq->figures());
  return out;
}

void krelev_jobqs_c::shutdown_all() {
  for (krelev_jobq_t *jobq : all()) jobq->shutdown();
}

void krelev_jobqs_c::destroy_all() {
  std::map<std::string, std::unique_ptr<krelev_jobq_t>> ended;
  krel_lock_c lock(m_mutex);
  m_default.store(nullptr, std::memory_order_release);
  ended.swap(m_queues);
  lock.unlock();
}

krelev_jobq_t *krelev_jobq_create(const char *name) {
  return krelev_jobqs_c::get().create(name, {});
}

krelev_jobq_t *krelev_jobq_create_ms(const char *name, bool memory_safety) {
  return krelev_jobqs_c::get().create(name, {.memory_safety = memory_safety});
}

krelev_jobq_t *krelev_jobq_retrieve(const char *name) {
  return krelev_jobqs_c::get().find(name);
}

const char *krelev_jobq_name(const krelev_jobq_t *jobq) {
  return jobq->name().c_str();
}

bool krelev_jobq_is_configured(const krelev_jobq_t *jobq) {
  return jobq->configured();
}

void krelev_jobq_set_concurrency(krelev_jobq_t *jobq, uint32_t threads) {
  jobq->set_concurrency(threads);
}

void krelev_jobq_set_min_max(krelev_jobq_t *jobq, uint32_t min, uint32_t max) {
  jobq->set_min_max(min, max);
}

void krelev_jobq_get_min_max(const krelev_jobq_t *jobq, uint32_t *min, uint32_t *max) {
  jobq->get_min_max(min, max);
}

void krelev_jobq_set_floor(krelev_jobq_t *jobq, uint32_t threads) {
  jobq->set_floor(threads);
}

void krelev_jobq_set_max_backlog(krelev_jobq_t *jobq, uint32_t jobs) {
  jobq->set_max_backlog(jobs);
}

bool krelev_jobq_get_memory_safety(const krelev_jobq_t *jobq) {
  return jobq->memory_safety();
}

void krelev_jobq_drain_and_shutdown(krelev_jobq_t *jobq) {
  jobq->shutdown();
}

void krelev_jobq_destroy(krelev_jobq_t *jobq) {
  krelev_jobqs_c::get().destroy(jobq);
}

void krelev_jobq_for_each(const std::function<void(const krelev_jobq_figures_t &)> &function) {
  for (const krelev_jobq_figures_t &figures : krelev_jobqs_c::get().figures()) function(figures);
}
