#include "platform/krel/event/krelev_thread.h"

#include <signal.h>

#include <exception>
#include <utility>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/event/krelev_spin.h"

const bool krelev_spin_c::s_several_cpus = std::thread::hardware_concurrency() > 1;

std::thread krelev_spawn(std::function<void()> body) {
  sigset_t blocked, before;
  sigfillset(&blocked);
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS, SIGPROF})
    sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  struct restore_t {
    sigset_t &mask;
    ~restore_t() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{before};
  return std::thread(std::move(body));
}

void krelev_log_exception(const char *what, krelev_callback_t callback) {
  const char *name = callback != nullptr ? krelev_name_for_callback(callback) : "function";
  try {
    throw;
  } catch (const std::exception &e) {
    krel_log(krel_error, "%s %s threw: %s\n", what, name, e.what());
  } catch (...) {
    krel_log(krel_error, "%s %s threw something that is no std::exception\n", what, name);
  }
  krelev_close_sections();
}

void krelev_close_sections() {
  while (krel_memory_in_cs()) krel_memory_end();
}
