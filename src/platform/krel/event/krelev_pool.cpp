#include "platform/krel/event/krelev_pool.h"

#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_fd.h"
#include "platform/krel/event/krelev_thread.h"

namespace {

std::atomic<krelev_pools_c *> g_pools{nullptr};

std::unique_ptr<krelev_pool_t> make_pool(const std::string &name, uint32_t threads) {
  auto pool = std::make_unique<krelev_pool_t>();
  pool->name = name;
  for (uint32_t i = 0; i < threads; ++i)
    pool->loops.push_back(std::make_unique<krelev_loop_c>(pool.get(), fmt::format("{}/{}", name, i)));
  return pool;
}

class function_task_c final : public krelev_task_c {
 public:
  explicit function_task_c(std::function<void()> function) : m_function(std::move(function)) {}
  void run(krelev_loop_c &) override {
    krelev_guarded("posted", nullptr, m_function);
    delete this;
  }
  void drop() override { delete this; }

 private:
  std::function<void()> m_function;
};

}  // namespace

krelev_pools_c::krelev_pools_c(uint32_t default_threads,
                               const std::vector<std::pair<std::string, uint32_t>> &further)
    : m_initial_thread(pthread_self()) {
  m_pools.push_back(make_pool("default", default_threads));
  for (const auto &[name, threads] : further) m_pools.push_back(make_pool(name, threads));
  for (const auto &pool : m_pools) {
    for (const auto &loop : pool->loops) {
      if (loop.get() == &first()) continue;
      m_threads.push_back(krelev_spawn([this, l = loop.get()] {
        m_gate.wait(k_closed);
        l->run();
      }));
      loop->set_thread(m_threads.back().native_handle());
    }
  }
  first().set_thread(m_initial_thread);
}

krelev_pools_c::~krelev_pools_c() = default;

krelev_pools_c *krelev_pools_c::find() {
  return g_pools.load(std::memory_order_acquire);
}

krelev_pools_c &krelev_pools_c::get() {
  krelev_pools_c *pools = find();
  krel_assert(pools != nullptr);
  return *pools;
}

void krelev_pools_c::install(std::unique_ptr<krelev_pools_c> pools) {
  krel_assert(find() == nullptr);
  g_pools.store(pools.release(), std::memory_order_release);
}

void krelev_pools_c::uninstall() {
  std::unique_ptr<krelev_pools_c>{g_pools.exchange(nullptr)};
}

void krelev_pools_c::open_gate() {
  m_gate.store(k_open, std::memory_order_release);
  m_gate.notify_all();
}

void krelev_pools_c::start() {
  krel_assert(!started());
  m_threads.push_back(krelev_spawn([this] {
    m_gate.wait(k_closed);
    first().run();
  }));
  first().set_thread(m_threads.back().native_handle());
  open_gate();
}

void krelev_pools_c::run_first() {
  krel_assert(!started());
  first().set_thread(pthread_self());
  open_gate();
  first().run();
  for (;;) pause();
}

void krelev_pools_c::stop() {
  open_gate();
  for (const auto &pool : m_pools)
    for (const auto &loop : pool->loops) loop->stop();
  for (std::thread &thread : m_threads) thread.join();
}

krelev_loop_c *krelev_pools_c::of_thread(pthread_t thread) {
  krelev_loop_c *own = krelev_loop_c::current();
  if (own != nullptr && pthread_equal(own->thread(), thread)) return own;
  for (const auto &pool : m_pools)
    for (const auto &loop : pool->loops)
      if (pthread_equal(loop->thread(), thread)) return loop.get();
  return pthread_equal(thread, m_initial_thread) ? &first() : nullptr;
}

krelev_loop_c *krelev_default_owner() {
  if (krelev_loop_c *own = krelev_loop_c::current()) return own;
  krelev_pools_c *pools = krelev_pools_c::find();
  return pools == nullptr ? nullptr : &pools->first();
}

krelev_loop_c *krelev_owner_of(krelev_event_s *event) {
  if (event->loop == nullptr) event->loop = &krelev_pools_c::get().first();
  return event->loop;
}

void krelev_post_on(krelev_loop_c *loop, std::function<void()> function) {
  loop->post(std::make_unique<function_task_c>(std::move(function)).release());
}

void krelev_post(pthread_t owner, std::function<void()> function) {
  krelev_loop_c *loop = krelev_pools_c::get().of_thread(owner);
  krel_assert(loop != nullptr);
  krelev_post_on(loop, std::move(function));
}

krelev_pool_t *krelev_pool(const char *name) {
  for (const auto &pool : krelev_pools_c::get().pools())
    if (pool->name == name) return pool.get();
  return nullptr;
}

int krelev_loop_concurrency(krelev_pool_t *pool) {
  if (pool == nullptr) pool = krelev_pools_c::get().pools().front().get();
  return static_cast<int>(pool->loops.size());
}

pthread_t krelev_choose_owner_pool(krelev_pool_t *pool, int index) {
  return pool->loops[static_cast<unsigned>(index) % pool->loops.size()]->thread();
}

pthread_t krelev_choose_owner(int index) {
  return krelev_choose_owner_pool(krelev_pools_c::get().pools().front().get(), index);
}

void krelev_set_owner(krelev_event_t event, pthread_t owner) {
  krelev_loop_c *loop = krelev_pools_c::get().of_thread(owner);
  krel_assert(loop != nullptr);
  krelev_event_s *e = krelev_event_of(event);
  krel_assert(e->kind != krelev_kind_e::fd || krelev_fd_is_idle(e));
  e->loop = loop;
}

pthread_t krelev_get_owner(krelev_event_t event) {
  return krelev_owner_of(krelev_event_of(event))->thread();
}

krelev_pool_t *krelev_get_pool_for_event(krelev_event_t event) {
  return krelev_owner_of(krelev_event_of(event))->pool();
}

void krelev_pool_for_each(const std::function<void(const krelev_pool_figures_t &)> &function) {
  for (const auto &pool : krelev_pools_c::get().pools()) {
    krelev_pool_figures_t figures = {pool->name, static_cast<uint32_t>(pool->loops.size()), 0, 0};
    for (const auto &loop : pool->loops) {
      figures.events += loop->events();
      figures.turns += loop->turns();
    }
    function(figures);
  }
}

double krelev_slowest_loop_age_s() {
  uint64_t now = krel_gethrtime();
  uint64_t oldest = now;
  for (const auto &pool : krelev_pools_c::get().pools()) {
    for (const auto &loop : pool->loops) {
      uint64_t turned = loop->last_turn_ns();
      if (turned != 0) oldest = std::min(oldest, turned);
    }
  }
  return static_cast<double>(now - oldest) / 1e9;
}
