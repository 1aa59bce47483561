#include "platform/krel/process/krel_watchdog.h"

#include <pthread.h>
#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <new>
#include <thread>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"
#include "platform/krel/process/krel_beat.h"
#include "platform/krel/process/krel_monitor.h"

namespace {

constexpr uint64_t k_beat_every_ns = 500'000'000;

krel_beat_t g_own;
std::atomic<krel_beat_t *> g_beat{&g_own};
std::atomic<uint64_t> g_enabled_ns{0};

// A loop that has hung since before the watchdog was enabled is late from then on only.
void beat_loop() {
  krel_thread_setname("heartbeat");
  for (;;) {
    auto age_ns = static_cast<uint64_t>(krelev_slowest_loop_age_s() * 1e9);
    uint64_t now_ns = krel_gethrtime();
    krel_beat()->beat_ns = std::max(now_ns - std::min(age_ns, now_ns), g_enabled_ns.load());
    struct timespec pause = {0, static_cast<long>(k_beat_every_ns)};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace

krel_beat_t *krel_beat() {
  return g_beat.load();
}
void krel_beat_share(krel_beat_t *beat) {
  g_beat = beat;
}

krel_beat_t *krel_beat_map() {
  void *memory = mmap(nullptr, sizeof(krel_beat_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : new (memory) krel_beat_t;
}

void krel_watchdog_child_krelev_heartbeat() {
  krel_beat_t *beat = krel_beat();
  if (beat->watching.exchange(true)) return;
  g_enabled_ns = krel_gethrtime();
  beat->beat_ns = g_enabled_ns.load();
  std::thread(beat_loop).detach();
}

void krel_watchdog_disable_all() {
  krel_beat()->disabled++;
}

void krel_watchdog_enable_all() {
  krel_beat_t *beat = krel_beat();
  g_enabled_ns = krel_gethrtime();
  beat->beat_ns = g_enabled_ns.load();
  beat->started = true;
  if (beat->disabled > 0) beat->disabled--;
}

void krel_watchdog_disable_asynch_core_dump() {
  krel_monitor_wait_for_core_dumps();
}
