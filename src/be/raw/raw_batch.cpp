#include "be/raw/raw_batch.h"

#include "libvelmar/topo/topo.h"
#include "util/raw_record.h"

namespace be::raw {

namespace {

constexpr uint64_t ACTIVITY_UNIT_MS = 300000;

bool is_owner(const velmar_metric_locator_t *locator, const topo_config *tc) {
  host_config *loc[TOPO_MAX_WRITE_COPIES];
  return tc && topo_is_local_to_topology(locator, tc, topo_me(), loc);
}

bool known_is_local(known_metrics_c::entry_t *entry) {
  const topo_config *active = topo_active();
  if (entry->owned_under.load(std::memory_order_relaxed) == active && active) return true;
  if (!rest_raw_mgr_is_local(entry->locator)) return false;
  // ownership under the next topology only is asked for again each time
  if (!topo_next_active()) entry->owned_under.store(active, std::memory_order_relaxed);
  return true;
}

// Is the time's activity on record? Once it is, the entry remembers the newest such unit.
bool activity_recorded(known_metrics_c::entry_t *entry, uint64_t time_ms) {
  const auto unit = static_cast<uint32_t>(time_ms / ACTIVITY_UNIT_MS);
  if (unit == 0 || entry->recorded_unit.load(std::memory_order_relaxed) == unit) return true;
  const uint64_t second = time_ms / 1000;
  if (!velmar_metric_locator_was_active(entry->locator, second, second)) return false;
  entry->recorded_unit.store(unit, std::memory_order_relaxed);
  return true;
}

db::raw::nom_sample_t make_sample(uint64_t id, uint64_t time_ms, const dorn_record_m_value_t &value,
                                  uint16_t generation) {
  db::raw::nom_sample_t sample{id, time_ms, 0, generation, static_cast<char>(value.type), value.is_null};
  if (!value.is_null) {
    const bool narrow = value.type == VELMAR_METRIC_INT32 || value.type == VELMAR_METRIC_UINT32;
    sample.bits = narrow ? value.storage.v_uint32 : value.storage.v_uint64;
  }
  return sample;
}

batch_add_e add_sample(raw_batch_t *batch, batch_numeric_t &&numeric, const db::raw::nom_sample_t &sample) {
  const bool local = numeric.is_local;
  batch->samples.push_back(sample);
  batch->numerics.push_back(std::move(numeric));
  return local ? batch_add_e::added : batch_add_e::misdirected;
}

}  // namespace

bool rest_raw_mgr_is_local(const velmar_metric_locator_t *locator) {
  return is_owner(locator, topo_active()) || is_owner(locator, topo_next_active());
}

std::optional<batch_add_e> raw_batch_add_known(raw_batch_t *batch, known_metrics_c *known,
                                               const metric_name_t &name, uint64_t time_ms,
                                               const dorn_record_m_value_t &value, uint16_t generation) {
  known_metrics_c::entry_t *entry = known->find(name);
  if (!entry) return {};
  batch_numeric_t numeric;
  numeric.locator = metric_locator_sp(entry->locator);
  numeric.is_local = known_is_local(entry);
  numeric.needs_surrogate =
      numeric.is_local && (!activity_recorded(entry, time_ms) ||
                           velmar_metric_locator_get_type(entry->locator) != METRIC_TYPE_NUMERIC);
  const uint64_t id = velmar_metric_locator_get_surrogate_id(entry->locator);
  return add_sample(batch, std::move(numeric), make_sample(id, time_ms, value, generation));
}

batch_add_e raw_batch_add_unknown(raw_batch_t *batch, const metric_name_t &name, std::string_view text,
                                  uint64_t time_ms, const dorn_record_m_value_t &value, uint16_t generation) {
  batch_numeric_t numeric;
  mem_reader_t reader;
  mem_reader_init_mem(&reader, text.data(), text.size());
  numeric.locator = metric_locator_adopt(
      velmar_metric_locator_create_full(name.account_id, METRIC_TYPE_NUMERIC, name.uuid, &reader));
  if (!numeric.locator) return batch_add_e::bad_name;
  const std::string_view canonical(velmar_metric_locator_get_name_with_tags(numeric.locator.get()),
                                   velmar_metric_locator_get_name_len_with_tags(numeric.locator.get()));
  if (canonical.empty()) return batch_add_e::bad_name;  // nobody could ask for it
  numeric.is_local = numeric.needs_surrogate = rest_raw_mgr_is_local(numeric.locator.get());
  if (numeric.is_local && (name.form != name_form_e::metric || canonical != name.name))
    batch->names_as_sent.push_back(
        {static_cast<uint32_t>(batch->numerics.size()), name.form, std::string(name.name)});
  return add_sample(batch, std::move(numeric), make_sample(0, time_ms, value, generation));
}

batch_add_e raw_batch_add_numeric(raw_batch_t *batch, known_metrics_c *known, const metric_name_t &name,
                                  uint64_t time_ms, const dorn_record_m_value_t &value, uint16_t generation) {
  if (const auto result = raw_batch_add_known(batch, known, name, time_ms, value, generation)) return *result;
  return raw_batch_add_unknown(batch, name, name.name, time_ms, value, generation);
}

void raw_batch_drop_last(raw_batch_t *batch) {
  batch->numerics.pop_back();
  batch->samples.pop_back();
  if (!batch->names_as_sent.empty() && batch->names_as_sent.back().at == batch->numerics.size())
    batch->names_as_sent.pop_back();
}

batch_add_e raw_batch_add_histogram(raw_batch_t *batch, const metric_locator_sp &locator, uint64_t time_ms,
                                    hist_ptr histogram, bool cumulative) {
  if (velmar_metric_locator_get_name_len_with_tags(locator.get()) == 0) return batch_add_e::bad_name;
  if (!batch->histograms) batch->histograms = std::make_unique<histogram_data_t>();
  add_materialized_histogram_to_list(batch->histograms.get(), time_ms, locator.get(), std::move(histogram),
                                     cumulative, nullptr);
  histogram_entries_t *entry = batch->histograms->tail;
  entry->is_local = rest_raw_mgr_is_local(locator.get());
  return entry->is_local ? batch_add_e::added : batch_add_e::misdirected;
}

}  // namespace be::raw
