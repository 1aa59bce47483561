#include "platform/krel/process/krel_shutdown.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/process/krel_beat.h"
#include "platform/krel/process/krel_main.h"

namespace {

struct step_t {
  std::string name;
  std::function<void()> function;
};

struct registry_t {
  krel_mutex_c mutex;
  std::vector<step_t> steps GUARDED_BY(mutex);
};

registry_t &registry() {
  static registry_t *r = new registry_t;
  return *r;
}

std::atomic<bool> g_shutting_down{false};
std::atomic<void (*)(int)> g_on_hangup{nullptr};

bool take_last(step_t *step) {
  registry_t &r = registry();
  krel_lock_c lock(r.mutex);
  if (r.steps.empty()) return false;
  *step = std::move(r.steps.back());
  r.steps.pop_back();
  return true;
}

[[noreturn]] void end_in_order() {
  krel_thread_setname("shutdown");
  krel_shutdown_run();
  krel_log(krel_notice, "shut down\n");
  krel_log_go_synch();
  std::fflush(nullptr);
  _exit(0);  // other threads still run: destructors of statics would pull the ground from under them
}

void signal_loop(sigset_t signals) {
  krel_thread_setname("signals");
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGHUP) {
      krel_log_reopen_all();
      if (auto handler = g_on_hangup.load()) handler(signal);
      continue;
    }
    if (g_shutting_down.exchange(true)) continue;
    krel_beat()->stopping = true;
    krel_log(krel_notice, "signal %d received: shutting down\n", signal);
    std::thread(end_in_order).detach();
  }
}

}  // namespace

void krel_signals_start() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread(signal_loop, signals).detach();
}

void krel_shutdown_run() {
  step_t step;
  while (take_last(&step)) {
    krel_log(krel_debug, "shutdown: %s\n", step.name.c_str());
    try {
      step.function();
    } catch (const std::exception &e) {
      krel_log(krel_error, "shutdown: %s failed: %s\n", step.name.c_str(), e.what());
    } catch (...) {
      krel_log(krel_error, "shutdown: %s failed\n", step.name.c_str());
    }
  }
}

void krel_main_on_shutdown(const char *name, std::function<void()> function) {
  registry_t &r = registry();
  krel_lock_c lock(r.mutex);
  r.steps.push_back({name, std::move(function)});
}

bool krel_main_shutting_down() {
  return g_shutting_down.load();
}

void krel_main_on_hangup(void (*handler)(int signal)) {
  g_on_hangup = handler;
}
