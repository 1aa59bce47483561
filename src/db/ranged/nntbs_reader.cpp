#include "db/ranged/nntbs_reader.h"

#include <algorithm>
#include <new>

#include "db/ranged/nntbs/nntbs.h"
#include "db/ranged/nntbs/nntbs_hooks.h"
#include "db/ranged/run_iter.h"
#include "db/ranged/whisper_reader.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"

namespace db::ranged::nntbs {

namespace {

using db::kv::code_e;

// Source cells in order of time: those that the imported file has, the rest from the store.
class source_cells_c {
 public:
  source_cells_c(const reader_params_t &params, const metric_locator_sp &locator, unsigned period,
                 uint64_t start_s)
      : m_params(params), m_locator(locator), m_period(period), m_at_s(start_s) {}

  // The next `count` zeroed cells; how many there are. *error tells of damage.
  size_t read(size_t count, nnt_multitype *cells, std::string *error) {
    size_t done = m_params.whisper && m_params.whisper->covers(m_locator) ? read_whisper(count, cells) : 0;
    if (done < count) {
      krel_log(krel_debug, "Reading %lu items from NNTBS at %lu with period %u\n", count - done,
               m_at_s + done * m_period, m_period);
      done += std::min(count - done,
                       m_params.source->get_range(m_at_s + done * m_period, m_locator, m_period,
                                                  static_cast<int64_t>(count - done), cells + done, error));
    }
    m_at_s += count * m_period;
    return done;
  }

 private:
  size_t read_whisper(size_t count, nnt_multitype *cells) {
    krel_log(krel_debug, "Attempting to read %lu items from Whisper first at %lu with period %u\n", count,
             m_at_s, m_period);
    std::string error;
    const size_t got = m_params.whisper->whisper_get_range(m_at_s, m_locator, count, m_period, cells, &error);
    if (!error.empty())
      krel_log(krel_error, "Whisper error while reading %s at timestamp %lu with period %u: %s\n",
               velmar_metric_locator_get_name_with_tags(m_locator.get()), m_at_s, m_period, error.c_str());
    krel_log(krel_debug, "Read %lu items from Whisper\n", got);
    return got;
  }

  const reader_params_t &m_params;
  const metric_locator_sp &m_locator;
  const unsigned m_period;
  uint64_t m_at_s;
};

}  // namespace

size_t cell_source_c::get_range(uint64_t offset, const metric_locator_sp &locator, unsigned period,
                                int64_t count, nnt_multitype *v, std::string *error) const {
  return nntbs_get_range(offset, locator, period, count, v, nullptr, nullptr, error);
}

int cell_source_c::get_metadata(const metric_locator_sp &locator, unsigned period, uint64_t *epoch,
                                uint64_t *apocalypse) const {
  return nntbs_get_metadata(locator, period, epoch, apocalypse);
}

const cell_source_c &node_cell_source() {
  static const cell_source_c source;
  return source;
}

bool read_and_accumulate_nntbs(const reader_params_t &params, const metric_locator_sp &locator,
                               uint64_t start_s, uint64_t request_agg_count, unsigned collapse,
                               nnt_multitype *v, const rollup_config_t &cfg, size_t max_read_for_collapse,
                               size_t *read_count, std::string *error) {
  source_cells_c source(params, locator, cfg.period, start_s);
  if (collapse == 1) {
    *read_count = source.read(request_agg_count, v, error);
    return error->empty();
  }
  const uint64_t wanted = request_agg_count * collapse;
  std::vector<nnt_multitype> scratch(std::min<uint64_t>(wanted, max_read_for_collapse));
  uint64_t merged = 0;
  while (merged < wanted) {
    const size_t window = std::min<uint64_t>(scratch.size(), wanted - merged);
    if (merged > 0) std::fill_n(scratch.begin(), window, nnt_multitype{});
    const size_t got = source.read(window, scratch.data(), error);
    if (!error->empty()) return false;
    for (size_t i = 0; i < got; i++, merged++) nnt_multitype_accum(&v[merged / collapse], &scratch[i]);
    if (got < window) break;
  }
  *read_count = (merged + collapse - 1) / collapse;
  return true;
}

const rollup_config_t *ctx_c::find_config(const db::kv::ranged_c::key_c &key) const {
  const uint64_t span_s = key.m_rollup_span / 1000, start_s = key.m_start / 1000;
  if (span_s > UINT32_MAX) return nullptr;
  unsigned collapse = 0;
  const rollup_config_t *cfg = rollup_config_get_rollup_for_period(
      *m_params.rollups, static_cast<unsigned>(span_s), key.m_can_squash ? &collapse : nullptr, start_s);
  if (cfg || !key.m_can_squash || !m_params.can_coarsen) return cfg;
  const int smallest = rollup_config_get_smallest_rollup_in_system(*m_params.rollups, start_s);
  if (smallest <= 0 || static_cast<uint64_t>(smallest) * 1000 % key.m_rollup_span != 0) return nullptr;
  return rollup_config_get_rollup_for_period(*m_params.rollups, static_cast<unsigned>(smallest), nullptr,
                                             start_s);
}

db::kv::iter_synch_up ctx_c::find_synch(const db::kv::ranged_c::key_c &key) const {
  krel_assert(!krelev_in_loop());
  if (key.m_rollup_span == 0) return make_error(key, code_e::UNALIGNED_OFFSET);
  const rollup_config_t *cfg = find_config(key);
  if (!cfg) return make_error(key, code_e::NO_SUCH_ROLLUP);
  const uint64_t span_s = key.m_rollup_span / 1000, start_s = key.m_start / 1000, end_s = key.m_end / 1000;
  const unsigned collapse = std::max(1U, static_cast<unsigned>(span_s / cfg->period));
  const uint64_t cell_s = uint64_t{cfg->period} * collapse;
  if (span_s >= cfg->period && cell_s * 1000 != key.m_rollup_span) {
    krel_log(
        krel_error,
        "db/ranged/nntbs error: requested metric %s period %u s does not divide requested period %ld ms.\n",
        velmar_metric_locator_get_name_with_tags(key.m_metric_locator.get()), cfg->period,
        static_cast<long>(key.m_rollup_span));
    return make_error(key, code_e::NO_SUCH_ROLLUP);
  }
  if (end_s < start_s) {
    krel_log(krel_error, "db/ranged/nntbs error: requested start after end\n");
    return make_error(key, code_e::INTERNAL);
  }
  const uint64_t count = (end_s - start_s) / cell_s;
  if (count > MAX_RUN_CELLS) return make_error(key, code_e::NO_MEM);
  if (count == 0) return make_no_data();
  std::vector<nnt_multitype> cells;
  size_t read_count = 0;
  try {
    cells.resize(count);
    std::string error;
    if (fetch_nntbs_data_hook_invoke(key.m_metric_locator, start_s, count, collapse, cells.data(), cfg,
                                     MAX_READ_FOR_COLLAPSE, &read_count) == NNTBS_HOOK_CONTINUE &&
        !read_and_accumulate_nntbs(m_params, key.m_metric_locator, start_s, count, collapse, cells.data(), *cfg,
                                   MAX_READ_FOR_COLLAPSE, &read_count, &error)) {
      krel_log(krel_error, "db/ranged/nntbs error: %s\n", error.substr(0, error.find('\n')).c_str());
      return make_error(key, code_e::INTERNAL);
    }
  } catch (const std::bad_alloc &) {
    return make_error(key, code_e::NO_MEM);
  }
  const db::kv::ranged_c::value_c run = {start_s * 1000, cell_s * 1000, std::min<uint64_t>(read_count, count),
                                         cells.data()};
  return std::make_unique<run_iter_c<std::vector<nnt_multitype>>>(key.m_metric_locator, run, std::move(cells));
}

bool ctx_c::get_times(const db::kv::ranged_c::key_c &key, uint64_t *epoch, uint64_t *apocalypse) const {
  const uint64_t span_s = key.m_rollup_span / 1000;
  return span_s <= UINT32_MAX &&
         m_params.source->get_metadata(key.m_metric_locator, static_cast<unsigned>(span_s), epoch,
                                       apocalypse) == 0;
}

std::optional<uint64_t> ctx_c::get_epoch(const db::kv::ranged_c::key_c &key) const {
  uint64_t epoch = 0, apocalypse = 0;
  if (get_times(key, &epoch, &apocalypse)) return epoch * 1000;
  krel_log(krel_debug, "NNTBS -- metadata_reader_c::epoch_reader_asynch_cb failed w/ epoch: %lu\n", epoch);
  return {};
}

std::optional<uint64_t> ctx_c::get_apocalypse(const db::kv::ranged_c::key_c &key) const {
  uint64_t epoch = 0, apocalypse = 0;
  if (!get_times(key, &epoch, &apocalypse)) return {};
  return apocalypse * 1000;
}

}  // namespace db::ranged::nntbs
