#include "be/hist/hist_rollup_target.h"

#include <algorithm>
#include <string>
#include <vector>

#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "platform/krel/base/krel_clock.h"
#include "platform/krel/base/krel_log.h"
#include "util/concurrency/single_barrier.h"

using namespace db::raw;

namespace {

constexpr size_t CELLS_AT_ONCE = 2048;  // bounds what a write holds in memory

struct write_wait_t : is_raw_write_closure_t {
  void on_success() override {}
  void on_error(const raw_write_error_c &error) override {
    rows += error.get_row_count();
    text = error.get_text();
  }
  void on_complete() override { done.count_down(); }
  uint64_t rows = 0;
  const char *text = "";
  util::concurrency::single_barrier_c done{1};
};

}  // namespace

bool hist_rollup_target_c::write_histograms(const metric_locator_sp &locator,
                                            std::span<const histogram_cell_t> cells) {
  const uint64_t now_s = static_cast<uint64_t>(krel_now_ms()) / 1000;
  if (m_config.retention_s != 0 && now_s > m_config.retention_s) {
    const uint64_t oldest_ms = (now_s - m_config.retention_s) * 1000;
    const auto kept = std::partition_point(
        cells.begin(), cells.end(), [&](const histogram_cell_t &cell) { return cell.ts_ms < oldest_ms; });
    cells = {kept, cells.end()};
  }
  bool stored = true;
  for (size_t at = 0; at < cells.size(); at += CELLS_AT_ONCE)
    if (!write_some(locator, cells.subspan(at, std::min(CELLS_AT_ONCE, cells.size() - at)))) stored = false;
  return stored;
}

bool hist_rollup_target_c::write_some(const metric_locator_sp &locator,
                                      std::span<const histogram_cell_t> cells) {
  std::vector<std::string> serialized(cells.size());
  std::vector<dorn_record_bytes_t> bytes(cells.size());
  std::vector<raw_key_c> keys(cells.size());
  std::vector<raw_entry_c> entries(cells.size());
  const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get());
  for (size_t i = 0; i < cells.size(); i++) {
    serialized[i].resize(hist_serialize_estimate(cells[i].histogram));
    const ssize_t size = hist_serialize(cells[i].histogram, serialized[i].data(), serialized[i].size());
    krel_assert(size == static_cast<ssize_t>(serialized[i].size()));
    bytes[i] = {serialized[i].size(), serialized[i].data()};
    db::surrogate::key_c key;
    key.set_data(locator, std::chrono::milliseconds(static_cast<int64_t>(cells[i].ts_ms)));
    keys[i].set_data(id, std::move(key));
    dorn_record_m_value_t data = {VELMAR_METRIC_HISTOGRAM, false, {}};
    data.storage.v_bytes = &bytes[i];
    raw_value_c value;
    value.set_data_non_owner(data, 0);
    entries[i].set_data(&keys[i], std::move(value));
  }
  write_wait_t written;
  // leaves the family job for the period's writer; comes back when the slots are stored
  m_writer->write_set_asynch(entries.data(), entries.size(), &written);
  written.done.wait();
  if (written.rows != 0)
    krel_log(krel_error, "%lu of %zu slots of period %u were not stored for %s: %s\n", written.rows,
             cells.size(), m_config.period, velmar_metric_locator_get_name_with_tags(locator.get()),
             written.text);
  return written.rows == 0;
}
