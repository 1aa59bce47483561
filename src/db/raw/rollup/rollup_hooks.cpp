#include "db/raw/rollup/rollup_hooks.h"

#include <atomic>
#include <string>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"

namespace db::raw {

namespace {

template <typename Function>
class hook_list_c {
 public:
  void add(const char *name, Function function, void *closure) {
    const krel_exclusive_lock_c lock(m_mutex);
    m_hooks.push_back({name, function, closure});
    m_exists.store(true, std::memory_order_release);
    krel_log(krel_debug, "rollup hook \"%s\" registered\n", name);
  }
  bool exists() const { return m_exists.load(std::memory_order_acquire); }
  void clear() {
    const krel_exclusive_lock_c lock(m_mutex);
    m_hooks.clear();
    m_exists.store(false, std::memory_order_release);
  }
  template <typename Call>
  void each(Call call) const {
    if (!exists()) return;
    const krel_shared_lock_c lock(m_mutex);
    for (const hook_t &hook : m_hooks) call(hook.function, hook.closure);
  }

 private:
  struct hook_t {
    std::string name;
    Function function;
    void *closure;
  };
  mutable krel_shared_mutex_c m_mutex;
  std::vector<hook_t> m_hooks GUARDED_BY(m_mutex);
  std::atomic<bool> m_exists{false};
};

hook_list_c<rollup_step_hook_f> step_hooks;
hook_list_c<suppress_rollup_filter_hook_f> filter_hooks;

}  // namespace

void rollup_step_hook_register(const char *name, rollup_step_hook_f function, void *closure) {
  step_hooks.add(name, function, closure);
}
void rollup_step_hook_invoke(const char *testname, const char *param1) {
  step_hooks.each([&](rollup_step_hook_f function, void *closure) { function(closure, testname, param1); });
}
bool rollup_step_hook_exists() {
  return step_hooks.exists();
}

void suppress_rollup_filter_hook_register(const char *name, suppress_rollup_filter_hook_f function,
                                          void *closure) {
  filter_hooks.add(name, function, closure);
}
bool suppress_rollup_filter_hook_invoke(const metric_locator_sp &locator) {
  bool suppress = false;
  filter_hooks.each([&](suppress_rollup_filter_hook_f function, void *closure) {
    suppress = function(closure, locator) || suppress;
  });
  return suppress;
}

void rollup_hooks_clear() {
  step_hooks.clear();
  filter_hooks.clear();
}

}  // namespace db::raw
