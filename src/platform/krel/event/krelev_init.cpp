// Start and stop.
#include <future>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev_config.h"
#include "platform/krel/event/krelev_jobq.h"
#include "platform/krel/event/krelev_pool.h"

namespace {

struct keys_t {
  krel_mutex_c mutex;
  std::map<std::string, std::string> of_config GUARDED_BY(mutex);
};

keys_t &keys() {
  static keys_t *k = new keys_t;
  return *k;
}

// Returns once every loop has run what was posted to it before; gives the number of tasks that did it.
uint64_t pass_all_loops(krelev_pools_c &pools) {
  uint64_t tasks = 0;
  for (const auto &pool : pools.pools()) {
    for (const auto &loop : pool->loops) {
      std::promise<void> passed;
      krelev_post_on(loop.get(), [&passed] { passed.set_value(); });
      passed.get_future().wait();
      ++tasks;
    }
  }
  return tasks;
}

// Jobs make posts and posts make jobs: until a pass over all has come upon nothing but itself. What goes
// on for ever (a job per turn) is left after a hundred passes.
void settle(krelev_pools_c &pools) {
  constexpr int k_passes = 100;
  auto so_far = [&pools] {
    uint64_t sum = krelev_jobqs_c::get().added();
    for (const auto &pool : pools.pools())
      for (const auto &loop : pool->loops) sum += loop->tasks();
    return sum;
  };
  uint64_t expected = UINT64_MAX;
  for (int pass = 0; pass < k_passes; ++pass) {
    krelev_jobqs_c::get().wait_all_idle();
    uint64_t own = pools.started() ? pass_all_loops(pools) : 0;
    uint64_t now = so_far();
    if (now == expected + own) return;
    expected = now;
  }
}

}  // namespace

void krelev_config(const char *key, const char *value) {
  krel_assert(krelev_pools_c::find() == nullptr);
  krel_lock_c lock(keys().mutex);
  keys().of_config[key] = value;
}

int krelev_init() {
  krel_assert(krelev_pools_c::find() == nullptr);
  std::map<std::string, std::string> all;
  {
    krel_lock_c lock(keys().mutex);
    all = keys().of_config;
  }
  krelev_read_configuration(&all);
  krelev_setup_t setup = krelev_setup_from(all);
  krelev_pools_c::install(std::make_unique<krelev_pools_c>(setup.default_threads, setup.further_pools));
  for (const auto &[name, settings] : setup.job_queues)
    krel_assert(krelev_jobqs_c::get().create(name, settings) != nullptr);
  return 0;
}

void krelev_loop() {
  krelev_pools_c::get().run_first();
}

void krelev_start_threads() {
  krelev_pools_c::get().start();
}

void krelev_stop() {
  krelev_pools_c &pools = krelev_pools_c::get();
  settle(pools);
  krelev_jobqs_c::get().shutdown_all();
  pools.stop();
  krelev_jobqs_c::get().destroy_all();
  krelev_pools_c::uninstall();
  krel_lock_c lock(keys().mutex);
  keys().of_config.clear();
}
