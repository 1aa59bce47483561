#include "be/nntbs/nntbs_mgr.h"

#include <algorithm>

#include "be/nntbs/nntbs_mgr_config.h"
#include "db/ranged/nntbs/rollup_build.h"
#include "db/ranged/nntbs/shard/storage_error.h"
#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_util.h"

namespace {

// Adds the time since its construction to a counter.
class elapsed_c {
 public:
  explicit elapsed_c(std::atomic<uint64_t> *us) : m_us(us) { krel_perftimer_start(&m_timer); }
  ~elapsed_c() { *m_us += static_cast<uint64_t>(krel_perftimer_elapsed(&m_timer)) / 1000; }
  elapsed_c(const elapsed_c &) = delete;
  elapsed_c &operator=(const elapsed_c &) = delete;

 private:
  std::atomic<uint64_t> *const m_us;
  krel_perftimer_t m_timer;
};

int do_rollup(uint64_t offset, const rollup_config_t &src, rollup_config_t *dst,
              const metric_locator_sp &metric_locator) {
  const elapsed_c elapsed(&dst->put_elapsed_us);
  ++dst->put_calls;
  return nntbs_do_rollup(offset, src, *dst, metric_locator);
}

}  // namespace

rollup_config_set_t &nntbs_mgr_get_rollup_configs() {
  static rollup_config_set_t *const set = new rollup_config_set_t;
  return *set;
}

void nntbs_mgr_init(const char *node_id, bool ephemeral, bool reconstitute) {
  if (ephemeral) return;
  rollup_config_set_t &set = nntbs_mgr_get_rollup_configs();
  const std::string path = nntbs_mgr_read_config(node_id, &set);
  rollup_config_init(&set);
  nntbs_init(path, &set, velmar_global_surrogate_get_lookup_synch(),
             velmar_global_surrogate_get_writer_asynch());
  if (!reconstitute) nntbs_start_maintenance();
}

void nntbs_mgr_close() {
  if (nntbs_get_shard_mgr()) nntbs_close();
}

int nntbs_mgr_put_specific(rollup_config_t *r, uint64_t offset, const metric_locator_sp &metric_locator,
                           const nnt_multitype &v, std::string *error, bool should_do_rollups) {
  int code;
  {
    const elapsed_c elapsed(&r->put_elapsed_us);
    ++r->put_calls;
    code = nntbs_put(offset * 1000, metric_locator, v, r->period);
  }
  if (code != 0) {
    if (error) *error = db::ranged::nntbs::storage_error(code).message();
    return code;
  }
  if (should_do_rollups) nntbs_mgr_do_rollups(offset, r->my_idx, metric_locator);
  return 0;
}

int nntbs_mgr_put(uint64_t offset, const metric_locator_sp &metric_locator, const nnt_multitype &v,
                  std::string *error) {
  return nntbs_mgr_put_specific(nntbs_mgr_get_rollup_configs().configs.front(), offset, metric_locator, v,
                                error, true);
}

int nntbs_mgr_put_range(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype *v,
                        size_t entries, uint64_t period_ms, absent_cells_e absent) {
  return nntbs_put_range(offset_ms, metric_locator, v, entries, static_cast<unsigned>(period_ms / 1000),
                         absent);
}

int64_t nntbs_mgr_get_range(uint64_t offset, const metric_locator_sp &metric_locator, rollup_config_t *r,
                            unsigned collapse, int64_t count, nnt_multitype *v, uint64_t *original_epoch,
                            uint64_t *original_apocalypse, std::string *error) {
  const elapsed_c elapsed(&r->get_elapsed_us);
  ++r->get_calls;
  const size_t cells =
      nntbs_get_range(offset, metric_locator, r->period, count, v, original_epoch, original_apocalypse, error);
  if (cells == 0) {
    if (error) *error = "unknown error";
    return -1;
  }
  r->get_count += cells;
  if (collapse < 2) return static_cast<int64_t>(cells);
  for (size_t i = 0; i < cells; i += collapse) {
    nnt_multitype target{};
    nnt_multitype_rollup(&target, 0, std::min<size_t>(collapse, cells - i), v + i, 1);
    v[i / collapse] = target;
  }
  return static_cast<int64_t>((cells + collapse - 1) / collapse);
}

void nntbs_mgr_do_rollups(uint64_t offset, int idx, const metric_locator_sp &metric_locator) {
  const auto &configs = nntbs_mgr_get_rollup_configs().configs;
  for (size_t j = static_cast<size_t>(idx) + 1; j < configs.size(); ++j) {
    if (configs[j]->parent_idx != idx) continue;
    do_rollup(offset, *configs[static_cast<size_t>(idx)], configs[j], metric_locator);
    nntbs_mgr_do_rollups(offset, static_cast<int>(j), metric_locator);
  }
}

bool nntbs_mgr_generate_single_rollup(const metric_locator_sp &metric_locator, unsigned from_period,
                                      unsigned to_period, uint64_t epoch, uint64_t apocalypse) {
  return nntbs_generate_single_rollup(metric_locator, from_period, to_period, epoch, apocalypse);
}
