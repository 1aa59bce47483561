#include "db/raw/rollup/suppressed_metrics.h"

#include <map>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace db::raw {

namespace {

constexpr const char *NAME = "clean_rollup_suppressed_metrics";

stats_handle_t *register_percent_success() {
  stats_handle_t *handle =
      velmar_stats_get_handle("db.raw.rollup.suppressed.percent_success", STATS_TYPE_DOUBLE);
  if (handle) stats_handle_add_tag(handle, "operation", NAME);
  return handle;
}

}  // namespace

suppressed_metrics_c::suppressed_metrics_c(const rollup_suppression_c *suppression,
                                           std::shared_ptr<surrogate::lookup_synch_c> lookup,
                                           std::function<bool()> is_any_reconstituting)
    : m_suppression(suppression),
      m_lookup(std::move(lookup)),
      m_is_any_reconstituting(std::move(is_any_reconstituting)),
      m_percent_success(register_percent_success()) {}

void suppressed_metrics_c::clean_rollup_suppressed_metrics(uint64_t end_seconds) {
  if (!has_filter()) return;
  const std::unique_lock lock(m_mutex, std::try_to_lock);
  if (!lock.owns_lock()) return;
  if (m_is_any_reconstituting && m_is_any_reconstituting()) {
    krel_ex_log(krel_notice, "{}: skipping cleanup for cleanup time {}: reconstitute in progress on cluster\n",
                NAME, end_seconds);
    return;
  }
  if (end_seconds <= m_last_run_s) {
    krel_ex_log(krel_notice, "{}: skipping cleanup for cleanup time {}: time <= last run time ({})\n", NAME,
                end_seconds, m_last_run_s);
    return;
  }
  m_last_run_s = end_seconds;

  uint64_t scanned = 0, found = 0, failed = 0;
  std::map<int32_t, std::vector<uint64_t>> ids;  // by account
  m_lookup->side_load_all_surrogates([&](const metric_locator_sp &locator) {
    scanned++;
    // one with texts or histograms, too, has more than its raw samples to lose
    if (velmar_metric_locator_get_type(locator.get()) != METRIC_TYPE_NUMERIC) return true;
    auto &account = ids[velmar_metric_locator_get_account_id(locator.get())];
    if (!velmar_metric_locator_was_active(locator.get(), end_seconds, UINT64_MAX) &&
        m_suppression->matches_filter(locator))
      account.push_back(velmar_metric_locator_get_surrogate_id(locator.get()));
    return true;
  });
  for (const auto &[account, account_ids] : ids) {
    krel_ex_log(krel_notice, "{}: {} finished activity scan, found {}\n", NAME, account, account_ids.size());
    found += account_ids.size();
    if (account_ids.empty()) continue;
    const size_t refused = m_lookup->batch_erase(account_ids).second.size();
    if (refused) krel_ex_log(krel_error, "{}: Errors deleting {} surrogates\n", NAME, refused);
    failed += refused;
  }
  const double percent =
      found == 0 ? 100.0 : 100.0 * static_cast<double>(found - failed) / static_cast<double>(found);
  stats_set(m_percent_success, STATS_TYPE_DOUBLE, &percent);
  krel_ex_log(krel_notice, "{} completed operations for all accounts (end time {}). Scanned {}.  Deleted {}\n",
              NAME, end_seconds, scanned, found - failed);
}

}  // namespace db::raw
