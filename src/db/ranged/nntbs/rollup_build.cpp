#include "db/ranged/nntbs/rollup_build.h"

#include <algorithm>

#include "db/ranged/nntbs/nntbs_storage.h"
#include "platform/krel/base/krel_log.h"

namespace {

constexpr size_t STACK_CELLS = 256, MAX_CELLS = 65536;

krel_log_stream_t *rollup_log() {
  static krel_log_stream_t *const stream = krel_log_stream_find("debug/rollup");
  return stream;
}

std::string value_text(const nnt_multitype &cell) {
  switch (cell.type) {
    case NNT_TYPE_INT32:
      return std::to_string(cell.value.v_int32);
    case NNT_TYPE_UINT32:
      return std::to_string(cell.value.v_uint32);
    case NNT_TYPE_INT64:
      return std::to_string(cell.value.v_int64);
    case NNT_TYPE_UINT64:
      return std::to_string(cell.value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return fmt::format("{}", cell.value.v_double);
    default:
      return "[[null]]";
  }
}

struct rerolled_t {
  unsigned from, to;
  uint64_t metrics = 0, failed = 0;
};

bool reroll_ml(const metric_locator_sp &locator, void *closure) {
  auto *const job = static_cast<rerolled_t *>(closure);
  if (!(velmar_metric_locator_get_type(locator.get()) & METRIC_TYPE_NUMERIC)) return true;
  uint64_t epoch = 0, apocalypse = 0;
  if (nntbs_get_metadata(locator, job->from, &epoch, &apocalypse) != 0) return true;
  ++job->metrics;
  if (!nntbs_generate_single_rollup(locator, job->from, job->to, epoch, apocalypse)) ++job->failed;
  return true;
}

// The next smaller period that divides this one.
const rollup_config_t *source_of(const rollup_config_set_t &set, unsigned period) {
  const auto found = std::find_if(set.configs.rbegin(), set.configs.rend(), [&](const rollup_config_t *c) {
    return c->period < period && period % c->period == 0;
  });
  return found == set.configs.rend() ? nullptr : *found;
}

}  // namespace

int nntbs_do_rollup(uint64_t offset, const rollup_config_t &src, const rollup_config_t &dst,
                    const metric_locator_sp &metric_locator) {
  const size_t n = dst.period / src.period;
  const uint64_t src_start = offset - offset % dst.period;
  nnt_multitype on_stack[STACK_CELLS];
  std::unique_ptr<nnt_multitype, decltype(&free)> allocated(nullptr, free);
  nnt_multitype *cells = on_stack;
  if (n > STACK_CELLS) {
    allocated.reset(static_cast<nnt_multitype *>(calloc(n, sizeof(nnt_multitype))));
    if (!allocated) krel_fatal("calloc of %d failed\n", static_cast<int>(n));
    cells = allocated.get();
  } else {
    std::fill_n(on_stack, n, nnt_multitype{});
  }
  std::string error;
  const size_t cnt = nntbs_get_range(src_start, metric_locator, src.period, static_cast<int64_t>(n), cells,
                                     nullptr, nullptr, &error);
  if (cnt < 1) return 1;
  if (!error.empty()) return -1;  // a cell of a part of its span would hide the whole one
  nnt_multitype dst_v{};
  nnt_multitype_rollup(&dst_v, 0, cnt, cells, 1);
  krel_log(rollup_log(), "nnt_mgr:storing (%s @ %llu) : period %d : %s\n",
           velmar_metric_locator_get_name_with_tags(metric_locator.get()),
           static_cast<unsigned long long>(src_start), static_cast<int>(dst.period), value_text(dst_v).c_str());
  return nntbs_put_range(src_start * 1000, metric_locator, &dst_v, 1, dst.period);
}

bool nntbs_generate_single_rollup(const metric_locator_sp &metric_locator, unsigned from_period,
                                  unsigned to_period, uint64_t epoch, uint64_t apocalypse) {
  const size_t n = to_period / from_period;
  const size_t at_once = std::clamp<size_t>(MAX_CELLS / n, 1, db::ranged::nntbs::BLOCK_SLOTS);
  std::vector<nnt_multitype> source, target;
  uint64_t start = epoch - epoch % to_period;
  while (start <= apocalypse) {
    const auto count = static_cast<size_t>(std::min<uint64_t>((apocalypse - start) / to_period + 1, at_once));
    source.assign(count * n, {});
    target.assign(count, {});
    std::string error;
    if (nntbs_get_range(start, metric_locator, from_period, static_cast<int64_t>(source.size()), source.data(),
                        nullptr, nullptr, &error) < 1 ||
        !error.empty())
      return false;
    for (size_t i = 0; i < count; ++i) nnt_multitype_rollup(&target[i], 0, n, &source[i * n], 1);
    if (nntbs_put_range(start * 1000, metric_locator, target.data(), count, to_period, absent_cells_e::keep) !=
        0)
      return false;
    start += count * to_period;
  }
  return true;
}

bool nntbs_generate_rollup(unsigned rebuild_rollup) {
  const rollup_config_set_t &set = *db::ranged::nntbs::storage().rollup_configs;
  const auto period = static_cast<int>(rebuild_rollup);
  if (rebuild_rollup <= set.configs.front()->period) {
    krel_log(krel_error, "nntbs_generate_rollup: cannot generate %d - lower than any existing rollup\n",
             period);
    return false;
  }
  const rollup_config_t *const source = source_of(set, rebuild_rollup);
  if (!source) {
    krel_log(krel_error, "nntbs_generate_rollup: rollup %d has no acceptable lower rollup to build from\n",
             period);
    return false;
  }
  if (!rollup_config_get_rollup_for_period(set, rebuild_rollup, nullptr, 0)) {
    krel_log(krel_error, "nntbs_generate_rollup: rollup %d not found in config\n", period);
    return false;
  }
  krel_log(krel_notice, "NNTBS - beginning sweep reroll (%d -> %d)\n", static_cast<int>(source->period),
           period);
  rerolled_t job{source->period, rebuild_rollup};
  db::ranged::nntbs::storage().surrogate_lookup->for_each_surrogate(reroll_ml, &job);
  krel_log(krel_notice, "NNTBS - sweep reroll done: %lu metrics, %lu failed\n", job.metrics, job.failed);
  return job.failed == 0;
}
