#include "be/rollup/read_rollup.h"

#include <algorithm>

#include "be/common/proxied_read.h"
#include "be/rollup/mgr.h"
#include "be/rollup/rest_proxy_closure.h"

namespace velmar_be_rollup {

namespace {

constexpr uint64_t REFRESH_S = 300;

}  // namespace

read_rollup_c::read_rollup_c(metric_locator_sp metric_locator, uint32_t period, uint32_t collapse,
                             std::unique_ptr<rollup_fetcher_c> fetcher, const clock_c *clock)
    : m_clock(clock),
      m_fetcher(std::move(fetcher)),
      m_metric_locator(std::move(metric_locator)),
      m_period(std::max(period, 1U)),
      m_collapse(std::max(collapse, 1U)) {}

int read_rollup_c::read(uint64_t t, uint32_t before, uint32_t after, uint64_t deadline_us,
                        nnt_multitype *cell) {
  *cell = nnt_multitype{};
  const bool is_fresh = m_metadata_refresh_time && m_clock->now_s() - m_metadata_refresh_time < REFRESH_S;
  const bool is_past = t >= m_original_apocalypse;
  const auto from_window = [&] {
    if (m_rfh) nnt_get_fast(m_rfh.get(), t, cell);
    return cell->type == NNT_TYPE_ABSENT ? EMPTY : FOUND;
  };
  if (m_is_open) {
    if (t < m_original_epoch || (is_past && is_fresh)) return EMPTY;
    if (!is_past && t >= m_current_epoch && t < m_current_apocalypse) return from_window();
    m_rfh.reset();
    m_is_open = false;
  }
  if (is_past && is_fresh) return UNAVAILABLE;
  if (!fetch(t, before, after, deadline_us)) return UNAVAILABLE;
  return from_window();
}

bool read_rollup_c::fetch(uint64_t t, uint32_t before, uint32_t after, uint64_t deadline_us) {
  const uint64_t slot = t - t % m_period, lead = uint64_t{m_period} * before;
  rollup_window_t window;
  window.metric_locator = m_metric_locator;
  window.period_s = m_period;
  window.start_s = slot - std::min(slot, lead);
  // never without the cell that is asked for
  window.end_s =
      std::max(window.start_s + uint64_t{m_collapse} * (uint64_t{after} + before) * m_period, slot + m_period);
  const uint64_t now_us = m_clock->now_us();
  m_metadata_refresh_time = now_us / 1'000'000;
  int timeout_ms = 0;
  if (deadline_us) {
    if (deadline_us <= now_us) return false;
    timeout_ms = static_cast<int>(std::min<uint64_t>((deadline_us - now_us) / 1000 + 1, INT32_MAX));
  }
  fetched_window_t fetched = m_fetcher->fetch(window, timeout_ms);
  if (!fetched.ok) return false;
  set_readfast_handle(std::move(fetched), window.start_s, window.end_s);
  return true;
}

void read_rollup_c::set_readfast_handle(fetched_window_t window, uint64_t epoch, uint64_t apocalypse) {
  m_is_open = true;
  m_rfh = std::move(window.view);
  m_current_epoch = epoch;
  m_current_apocalypse = apocalypse;
  // without a range, data shows that there is one; nothing at all is believed for a while
  m_original_epoch = window.original_epoch.value_or(0);
  m_original_apocalypse = window.original_last ? *window.original_last + m_period : m_rfh ? UINT64_MAX : 0;
}

std::unique_ptr<read_rollup_c> read_rollup_factory_impl_c::create(metric_locator_sp metric_locator,
                                                                  uint32_t period, uint32_t collapse) {
  const bool is_mine = topo_is_mine(metric_locator.get());
  if (is_mine && !get_ranged_reader()) return nullptr;
  return std::make_unique<read_rollup_c>(
      std::move(metric_locator), period, collapse,
      is_mine ? make_read_rollup_local(get_ranged_reader()) : make_read_rollup_remote(), &krel_system_clock());
}

}  // namespace velmar_be_rollup
