#include "db/ranged/nntbs/nntbs_hooks.h"

#include <algorithm>
#include <atomic>

namespace {

// Entries are never removed, so that a walk needs no lock.
template <typename F>
class hook_list_c {
 public:
  void add(F function, void *closure) {
    auto *entry = new entry_t{function, closure, m_head.load(std::memory_order_relaxed)};
    while (!m_head.compare_exchange_weak(entry->next, entry, std::memory_order_release,
                                         std::memory_order_relaxed)) {
    }
  }
  // The greatest answer up to the first that is at least `last`.
  template <typename... Args>
  int invoke(int last, const Args &...args) const {
    int result = NNTBS_HOOK_CONTINUE;
    for (const entry_t *e = m_head.load(std::memory_order_acquire); e && result < last; e = e->next)
      result = std::max(result, e->function(e->closure, args...));
    return result;
  }

 private:
  struct entry_t {
    F function;
    void *closure;
    entry_t *next;
  };
  std::atomic<entry_t *> m_head{nullptr};
};

hook_list_c<put_nntbs_range_hook_f> put_hooks;
hook_list_c<get_nntbs_metadata_hook_f> metadata_hooks;
hook_list_c<fetch_nntbs_data_hook_f> fetch_hooks;

}  // namespace

void put_nntbs_range_hook_register(put_nntbs_range_hook_f function, void *closure) {
  put_hooks.add(function, closure);
}
void get_nntbs_metadata_hook_register(get_nntbs_metadata_hook_f function, void *closure) {
  metadata_hooks.add(function, closure);
}
void fetch_nntbs_data_hook_register(fetch_nntbs_data_hook_f function, void *closure) {
  fetch_hooks.add(function, closure);
}

int put_nntbs_range_hook_invoke(const metric_locator_sp &metric_locator, uint64_t start, unsigned period,
                                size_t count, const nnt_multitype *cells) {
  return put_hooks.invoke(NNTBS_HOOK_ABORT, metric_locator, start, period, count, cells);
}
int get_nntbs_metadata_hook_invoke(uint64_t surrogate_id, unsigned period, uint64_t *epoch,
                                   uint64_t *apocalypse) {
  return metadata_hooks.invoke(NNTBS_HOOK_DONE, surrogate_id, period, epoch, apocalypse);
}
int fetch_nntbs_data_hook_invoke(const metric_locator_sp &metric_locator, uint64_t start_s, size_t count,
                                 unsigned collapse, nnt_multitype *cells, const rollup_config_t *cfg,
                                 size_t max_read_for_collapse, size_t *read_count) {
  return fetch_hooks.invoke(NNTBS_HOOK_ABORT, metric_locator, start_s, count, collapse, cells, cfg,
                            max_read_for_collapse, read_count);
}
