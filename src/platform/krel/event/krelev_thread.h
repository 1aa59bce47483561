#pragma once
// Threads of loops and queues. They take no signals but those of their own faults, so that handlers
// run on the threads that the process chose.

#include <functional>
#include <thread>

#include "platform/krel/event/krelev.h"

// Throws std::system_error when there can be no further thread.
std::thread krelev_spawn(std::function<void()> body);

// Runs a user's function; what it throws is logged with its name ("job", "timer", ...) and callback.
// False when it threw.
template <typename Function>
bool krelev_guarded(const char *what, krelev_callback_t callback, Function function);

// Ends the krel_memory sections of the calling thread, its own and what a user's function left open.
void krelev_close_sections();

// To be called in a catch block only: logs the exception in flight and closes all krel_memory
// sections of the thread.
void krelev_log_exception(const char *what, krelev_callback_t callback);

template <typename Function>
bool krelev_guarded(const char *what, krelev_callback_t callback, Function function) {
  try {
    function();
    return true;
  } catch (...) {
    krelev_log_exception(what, callback);
    return false;
  }
}
