#include <vector>

#include "db/raw/nom/nom_format.h"
#include "db/raw/rollup/cumulative_forwarding.h"
#include "db/raw/rollup/rollup_data.h"
#include "db/raw/rollup/rollup_hooks.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"
#include "util/histogram_entries.h"

namespace db::raw {

namespace {

using namespace velmar_db_raw_nom;

// The slots of one period that have data, in order of time.
class span_c {
 public:
  span_c(rollup_target_c *target, uint64_t start_ms)
      : m_target(target), m_start_ms(start_ms), m_period_ms(uint64_t{target->get_period_s()} * 1000) {}

  uint64_t get_period_ms() const { return m_period_ms; }
  rollup_target_c *get_target() const { return m_target; }
  std::span<const histogram_cell_t> get_cells() const { return m_cells; }
  bool is_in_last_slot(uint64_t ts_ms) const {
    return !m_cells.empty() && m_cells.back().ts_ms == slot_of(ts_ms);
  }
  void add(uint64_t ts_ms, const histogram_t *histogram) {
    if (!is_in_last_slot(ts_ms)) open(slot_of(ts_ms));
    hist_accumulate(m_histograms[m_cells.size() - 1].get(), &histogram, 1);
  }
  void reset() { m_cells.clear(); }

 private:
  uint64_t slot_of(uint64_t ts_ms) const { return ts_ms - (ts_ms - m_start_ms) % m_period_ms; }
  void open(uint64_t slot_ms) {
    if (m_cells.size() == m_histograms.size())
      m_histograms.emplace_back(hist_alloc());
    else
      hist_clear(m_histograms[m_cells.size()].get());
    m_cells.push_back({slot_ms, m_histograms[m_cells.size()].get()});
  }

  rollup_target_c *const m_target;
  const uint64_t m_start_ms, m_period_ms;
  std::vector<hist_ptr> m_histograms;  // kept from metric to metric
  std::vector<histogram_cell_t> m_cells;
};

class histogram_rollup_data_c : public rollup_data_c {
 public:
  histogram_rollup_data_c(const rollup_pass_t &pass, size_t family, uint64_t resume_at);

  void start(uint64_t surrogate_id) override {
    m_surrogate_id = surrogate_id;
    m_samples = 0;
    m_has_prior = m_has_cumulative = false;
    for (span_c &span : m_spans) span.reset();
  }
  bool add_record(uint32_t floor_s, std::string_view record) override;
  bool write_entries_to_disk(const metric_locator_sp &locator) override;
  bool hand_on(const metric_locator_sp &) override {
    return !m_has_cumulative || m_next.write(m_surrogate_id, m_prior_ms, m_prior.get());
  }
  bool finish() override;
  uint64_t get_sample_count() const override { return m_samples; }

 private:
  bool deserialize(const char *blob, uint64_t ts_ms);
  const histogram_t *differentiate_if_cumulative(const rocks_entry_header_t &header, uint64_t ts_ms);
  void accumulate_data_hist(uint64_t ts_ms, const histogram_t *histogram);
  void fold_last_of_smallest();

  const rollup_pass_t &m_pass;
  const uint64_t m_start_ms, m_end_ms;
  std::vector<span_c> m_spans;
  cumulative_reader_c m_preceding;
  cumulative_writer_c m_next;
  uint64_t m_surrogate_id = 0, m_samples = 0;
  hist_ptr m_current, m_delta;
  hist_ptr m_prior;  // the cumulative histogram before the current one
  uint64_t m_prior_ms = 0;
  bool m_has_prior = false;
  bool m_has_cumulative = false;  // the metric has some in this shard: the last one is the prior
};

histogram_rollup_data_c::histogram_rollup_data_c(const rollup_pass_t &pass, size_t family, uint64_t resume_at)
    : m_pass(pass),
      m_start_ms(pass.start_s * 1000),
      m_end_ms(pass.end_s * 1000),
      m_preceding(cumulative_forwarding_path(pass.store->forwarding_path, pass.preceding_start_s, family)),
      m_next(cumulative_forwarding_path(pass.store->forwarding_path, pass.start_s, family), resume_at),
      m_current(hist_alloc()),
      m_delta(hist_alloc()),
      m_prior(hist_alloc()) {
  for (rollup_target_c *target : pass.targets) m_spans.emplace_back(target, m_start_ms);
}

bool histogram_rollup_data_c::deserialize(const char *blob, uint64_t ts_ms) {
  uint64_t length;
  memcpy(&length, blob, sizeof length);
  blob += BLOB_LENGTH_LEN;
  if (hist_deserialize(m_current.get(), blob, length) == static_cast<ssize_t>(length)) return true;
  krel_log(krel_error,
           "timeshard failed to deserialize sharded %s histogram, skipping entry: |surrogate %lu at %lu|, "
           "length %zu\n",
           m_pass.store->kind_name(), m_surrogate_id, ts_ms, static_cast<size_t>(length));
  stats_add64(m_pass.store->stats.hist_errors, 1);
  return false;
}

// What was counted since the sample before. The current histogram becomes the prior.
const histogram_t *histogram_rollup_data_c::differentiate_if_cumulative(const rocks_entry_header_t &header,
                                                                        uint64_t ts_ms) {
  if (header.type != NOM_TYPE_HISTOGRAM_CUMUL) return m_current.get();
  if (!m_has_cumulative && m_preceding.read(m_surrogate_id, &m_prior_ms, m_prior.get())) {
    m_has_prior = true;
    krel_log(krel_debug, "Used the cumulative prior from just before this shard\n");
  }
  const bool usable =
      m_has_prior && m_prior_ms < ts_ms && ts_ms - m_prior_ms <= m_pass.store->max_cumul_arrival_dist_ms;
  m_has_cumulative = m_has_prior = true;
  m_prior_ms = ts_ms;
  const histogram_t *current = m_current.get(), *prior = m_prior.get(), *result = m_delta.get();
  hist_clear(m_delta.get());
  if (usable) {
    hist_accumulate(m_delta.get(), &current, 1);
    if (hist_subtract(m_delta.get(), &prior, 1) < 0) result = current;  // it was counted anew
  }
  m_prior.swap(m_current);
  return result;
}

// Larger periods are made of the smallest one's slots where they consist of whole ones: histograms merge
// exactly.
void histogram_rollup_data_c::fold_last_of_smallest() {
  const auto cells = m_spans.front().get_cells();
  if (cells.empty()) return;
  for (size_t i = 1; i < m_spans.size(); i++)
    if (m_spans[i].get_period_ms() % m_spans.front().get_period_ms() == 0)
      m_spans[i].add(cells.back().ts_ms, cells.back().histogram);
}

void histogram_rollup_data_c::accumulate_data_hist(uint64_t ts_ms, const histogram_t *histogram) {
  if (m_spans.empty()) return;
  m_samples++;
  if (!m_spans.front().is_in_last_slot(ts_ms)) fold_last_of_smallest();
  m_spans.front().add(ts_ms, histogram);
  for (size_t i = 1; i < m_spans.size(); i++)
    if (m_spans[i].get_period_ms() % m_spans.front().get_period_ms() != 0) m_spans[i].add(ts_ms, histogram);
}

bool histogram_rollup_data_c::add_record(uint32_t floor_s, std::string_view record) {
  const rocks_entry_header_t header = header_of(record);
  const char *at = record.data() + HEADER_LEN;
  const char *const blobs = at + size_t{header.entry_count} * sizeof(hist_offset_measurement_t);
  bool in_order = true;
  int64_t last_offset = -1;
  for (; at != blobs; at += sizeof(hist_offset_measurement_t)) {
    hist_offset_measurement_t measurement;
    memcpy(&measurement, at, sizeof measurement);
    const auto offset = static_cast<int64_t>(offset_of(measurement.bits));
    if (offset <= last_offset || offset >= static_cast<int64_t>(RECORD_SIZE_MS)) {
      in_order = false;
      continue;
    }
    last_offset = offset;
    const uint64_t ts_ms = uint64_t{floor_s} * 1000 + static_cast<uint64_t>(offset);
    if (is_null_of(measurement.bits) || ts_ms < m_start_ms || ts_ms >= m_end_ms) continue;
    if (deserialize(blobs + measurement.value, ts_ms))
      accumulate_data_hist(ts_ms, differentiate_if_cumulative(header, ts_ms));
  }
  return in_order;
}

bool histogram_rollup_data_c::write_entries_to_disk(const metric_locator_sp &locator) {
  if (m_spans.empty()) return true;
  fold_last_of_smallest();
  bool stored = true;
  for (const span_c &span : m_spans) {
    const auto cells = span.get_cells();
    if (cells.empty()) continue;
    krel_log(krel_debug, "Rollup for %s writing %zu rollup entries for surrogate %lu at timestamp %lu\n",
             velmar_metric_locator_get_name_with_tags(locator.get()), cells.size(), m_surrogate_id,
             cells.front().ts_ms / 1000);
    if (!span.get_target()->write_histograms(locator, cells)) stored = false;
    rollup_step("cells");
  }
  return stored;
}

bool histogram_rollup_data_c::finish() {
  bool changed = false;
  if (!m_next.finish(&changed)) return false;
  if (const shard_sp next = changed ? m_pass.next.lock() : nullptr) next->mark_dirty();
  return true;
}

}  // namespace

std::unique_ptr<rollup_data_c> make_histogram_rollup_data(const rollup_pass_t &pass, size_t family,
                                                          uint64_t resume_at) {
  return std::make_unique<histogram_rollup_data_c>(pass, family, resume_at);
}

}  // namespace db::raw
