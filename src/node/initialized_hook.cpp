#include "node/initialized_hook.h"

#include <atomic>
#include <string>

#include "platform/krel/base/krel_log.h"

namespace {

struct hook_t {
  std::string name;
  const char *prototype;
  velmar_initialized_hook_f function;
  void *closure;
  hook_t *next;
};

std::atomic<hook_t *> head{nullptr};  // entries are never removed

}  // namespace

void velmar_initialized_hook_register(const char *name, velmar_initialized_hook_f function, void *closure) {
  auto *hook = new hook_t{name, "(void *closure)", function, closure, head.load(std::memory_order_relaxed)};
  while (!head.compare_exchange_weak(hook->next, hook, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

int velmar_initialized_hook_invoke() {
  int result = 0;
  for (const hook_t *hook = head.load(std::memory_order_acquire); hook; hook = hook->next) {
    const int status = hook->function(hook->closure);
    if (status == 2) {
      krel_log(krel_error, "initialization hook \"%s\" aborts the start\n", hook->name.c_str());
      return 2;
    }
    if (status == 1) result = 1;
  }
  return result;
}
