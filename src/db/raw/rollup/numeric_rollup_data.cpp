#include <bit>
#include <optional>

#include "db/raw/nom/nom_format.h"
#include "db/raw/nom/nom_sample.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "db/raw/rollup/rollup_data.h"
#include "db/raw/rollup/rollup_hooks.h"
#include "libvelmar/nnt/nnt_accumulator.h"
#include "platform/krel/base/krel_log.h"
#include "util/concurrency/single_barrier.h"

namespace db::raw {

namespace {

using namespace velmar_db_raw_nom;

std::vector<uint64_t> periods_ms(const std::vector<rollup_target_c *> &targets) {
  std::vector<uint64_t> periods;
  for (const rollup_target_c *target : targets) periods.push_back(uint64_t{target->get_period_s()} * 1000);
  return periods;
}

struct write_wait_t : is_raw_write_closure_t {
  void on_success() override {}
  void on_error(const raw_write_error_c &) override { failed = true; }
  void on_complete() override { done.count_down(); }
  bool failed = false;
  util::concurrency::single_barrier_c done{1};
};

double number_of(const nom_sample_t &sample) {
  switch (sample.type) {
    case VELMAR_METRIC_INT32:
      return static_cast<int32_t>(sample.bits);
    case VELMAR_METRIC_INT64:
      return static_cast<double>(static_cast<int64_t>(sample.bits));
    case VELMAR_METRIC_DOUBLE:
      return std::bit_cast<double>(sample.bits);
    default:
      return static_cast<double>(sample.bits);
  }
}

// Are they one sample? A record may have made its numbers wider.
bool is_same(const nom_sample_t &a, const nom_sample_t &b) {
  return a.ts_ms == b.ts_ms && a.generation == b.generation && a.is_null == b.is_null &&
         (a.type == b.type ? a.bits == b.bits : number_of(a) == number_of(b));
}

class numeric_rollup_data_c : public rollup_data_c {
 public:
  explicit numeric_rollup_data_c(const rollup_pass_t &pass)
      : m_pass(pass),
        m_start_ms(pass.start_s * 1000),
        m_end_ms(pass.end_s * 1000),
        m_cells(m_start_ms, m_end_ms, periods_ms(pass.targets)) {}

  void start(uint64_t surrogate_id) override {
    m_cells.reset();
    m_surrogate_id = surrogate_id;
    m_last.reset();
  }
  bool add_record(uint32_t floor_s, std::string_view record) override;
  bool write_entries_to_disk(const metric_locator_sp &locator) override;
  bool hand_on(const metric_locator_sp &locator) override;
  bool finish() override { return true; }
  uint64_t get_sample_count() const override { return m_cells.get_sample_count(); }

 private:
  template <typename T>
  bool add_measurements(uint64_t floor_ms, uint8_t type, std::string_view measurements);
  bool next_has(shard_c *next, const nom_sample_t &sample) const;

  const rollup_pass_t &m_pass;
  const uint64_t m_start_ms, m_end_ms;
  nnt_accumulator_c m_cells;
  uint64_t m_surrogate_id = 0;
  std::optional<nom_sample_t> m_last;  // of this shard, nulls passed over
};

template <typename T>
bool numeric_rollup_data_c::add_measurements(uint64_t floor_ms, uint8_t type, std::string_view measurements) {
  const char *at = measurements.data(), *const end = at + measurements.size(), *last = nullptr;
  metric_value_t value = {};
  value.type = static_cast<velmar_metric_type_t>(nom_to_metric_type(type));
  const bool has_carried = floor_ms < m_start_ms;
  bool in_order = true;
  int64_t last_offset = -1;
  for (; at != end; at += sizeof(measurement_t<T>)) {
    measurement_t<T> measurement;
    memcpy(&measurement, at, sizeof measurement);
    const auto offset = static_cast<int64_t>(offset_of(measurement.bits));
    if (offset <= last_offset || offset >= static_cast<int64_t>(RECORD_SIZE_MS)) [[unlikely]] {
      in_order = false;
      continue;
    }
    last_offset = offset;
    if (is_null_of(measurement.bits)) continue;
    value.whence_ms = floor_ms + static_cast<uint64_t>(offset);
    memcpy(&value.storage, &measurement.value, sizeof measurement.value);
    if (has_carried && value.whence_ms < m_start_ms) {
      m_cells.set_prev(value);
      continue;
    }
    if (value.whence_ms >= m_end_ms) break;
    m_cells.add(value);
    last = at;
  }
  if (last) {
    measurement_t<T> measurement;
    memcpy(&measurement, last, sizeof measurement);
    nom_sample_t &sample = m_last.emplace();
    sample = {m_surrogate_id,
              floor_ms + offset_of(measurement.bits),
              0,
              static_cast<uint16_t>(generation_of(measurement.bits)),
              nom_to_metric_type(type),
              false};
    memcpy(&sample.bits, &measurement.value, sizeof measurement.value);
  }
  return in_order;
}

bool numeric_rollup_data_c::add_record(uint32_t floor_s, std::string_view record) {
  const uint8_t type = header_of(record).type;
  const std::string_view measurements = record.substr(HEADER_LEN);
  const uint64_t floor_ms = uint64_t{floor_s} * 1000;
  switch (type) {
    case NOM_TYPE_INT32:
      return add_measurements<int32_t>(floor_ms, type, measurements);
    case NOM_TYPE_UINT32:
      return add_measurements<uint32_t>(floor_ms, type, measurements);
    case NOM_TYPE_INT64:
      return add_measurements<int64_t>(floor_ms, type, measurements);
    case NOM_TYPE_UINT64:
      return add_measurements<uint64_t>(floor_ms, type, measurements);
    default:
      return add_measurements<double>(floor_ms, type, measurements);
  }
}

bool numeric_rollup_data_c::write_entries_to_disk(const metric_locator_sp &locator) {
  bool stored = true;
  for (size_t i = 0; i < m_pass.targets.size(); i++) {
    const auto [begin, end] = m_cells.get_filled(i);
    if (begin >= end) continue;
    rollup_target_c *target = m_pass.targets[i];
    const uint64_t start_ms = m_start_ms + begin * target->get_period_s() * 1000;
    krel_log(krel_debug, "Rollup for %s writing %zu rollup entries for surrogate %lu at timestamp %lu\n",
             velmar_metric_locator_get_name_with_tags(locator.get()), end - begin, m_surrogate_id,
             start_ms / 1000);
    if (!target->write_numeric(locator, start_ms, m_cells.get_cells(i).subspan(begin, end - begin)))
      stored = false;
    rollup_step("cells");
  }
  return stored;
}

// Does the next shard have that sample as the last one carried? Writing it again would only make its rollup be
// repeated, and the rollup of all behind it.
bool numeric_rollup_data_c::next_has(shard_c *next, const nom_sample_t &sample) const {
  std::string error;
  const auto there =
      next->find_last_numeric(m_surrogate_id, 0, m_end_ms, raw_reader_asynch_c::nulls_e::take, &error);
  return there && is_same(*there, sample);
}

// A shard that is closed or was never made gets nothing: only the rate of a first sample there depends on it.
bool numeric_rollup_data_c::hand_on(const metric_locator_sp &locator) {
  const shard_sp next = m_last ? m_pass.next.lock() : nullptr;
  if (!next || next->maintenance_mode() != ONLINE || next_has(next.get(), *m_last)) return true;
  surrogate::key_c key;
  key.set_data(locator, std::chrono::milliseconds(static_cast<int64_t>(m_last->ts_ms)));
  raw_key_c raw_key;
  raw_key.set_data(m_surrogate_id, std::move(key));
  dorn_record_m_value_t data = {static_cast<velmar_metric_type_t>(m_last->type), false, {}};
  memcpy(&data.storage, &m_last->bits, sizeof m_last->bits);
  raw_value_c value;
  value.set_data_non_owner(data, m_last->generation);
  raw_entry_c entry;
  entry.set_data(&raw_key, std::move(value));
  write_wait_t written;
  next->write_prev_set_asynch(&entry, 1, &written);
  written.done.wait();
  if (written.failed && next->maintenance_mode() == ONLINE)
    krel_log(krel_error, "the last sample of surrogate %lu could not be carried to shard %s\n", m_surrogate_id,
             next->get_dir_name().c_str());
  return true;
}

}  // namespace

std::unique_ptr<rollup_data_c> make_numeric_rollup_data(const rollup_pass_t &pass) {
  return std::make_unique<numeric_rollup_data_c>(pass);
}

}  // namespace db::raw
