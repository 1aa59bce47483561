#include "db/raw/rollup/locator_window.h"

#include <vector>

#include "db/raw/nom/nom_format.h"

namespace db::raw {

namespace {

constexpr size_t WINDOW = 1024;

// The order of keys is that of the id's bytes in memory.
bool is_behind(uint64_t id, uint64_t other) {
  return __builtin_bswap64(id) > __builtin_bswap64(other);
}

}  // namespace

void locator_window_c::move_to(uint64_t surrogate_id) {
  using namespace velmar_db_raw_nom;
  m_locators.clear();
  m_last = surrogate_id;
  std::vector<uint64_t> ids;
  for (m_metrics->seek(surrogate_id); m_metrics->is_valid() && ids.size() < WINDOW; m_metrics->skip_metric())
    if (m_metrics->get_key().size() == KEY_LEN) ids.push_back(id_from_key(m_metrics->get_key().data()));
  if (ids.empty()) return;
  m_last = ids.back();
  for (const uint64_t id : ids) m_locators.emplace(id, nullptr);
  const auto found = m_lookup->batch_find(ids);
  while (found->fill_next_page())
    for (const metric_locator_sp &locator : found->get_page_locators())
      m_locators[velmar_metric_locator_get_surrogate_id(locator.get())] = locator;
}

metric_locator_sp locator_window_c::find(uint64_t surrogate_id) {
  if (m_locators.empty() || is_behind(surrogate_id, m_last)) move_to(surrogate_id);
  const auto at = m_locators.find(surrogate_id);
  // a metric that came since the window was taken
  return at == m_locators.end() ? m_lookup->find_reverse(surrogate_id) : at->second;
}

}  // namespace db::raw
