#include <rocksdb/c.h>
#include <unistd.h>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"
#include "util/histogram_entries.h"

namespace velmar_db_raw_nom {

using db::raw::nom_sample_t;
using db::raw::raw_entry_c;
using db::raw::raw_key_c;

namespace {

constexpr int WRITE_RETRIES = 10;
constexpr int PERF_LEVEL_DISABLED = 1;
constexpr size_t KEPT_SAMPLES = 1u << 16;  // more are given back after use

// What a writing thread keeps from set to set.
struct write_buffers_t {
  batch_builder_c builder;
  std::vector<nom_sample_t> samples;
};
write_buffers_t &write_buffers() {
  thread_local write_buffers_t buffers;
  return buffers;
}

std::string name_of(const raw_key_c *key) {
  if (key != nullptr && key->get_orig_key().get_metric_locator()) {
    return velmar_metric_locator_get_name_with_tags(key->get_orig_key().get_metric_locator().get());
  }
  return "surrogate " + std::to_string(key != nullptr ? key->get_surrogate_id() : 0);
}

uint64_t time_of(const raw_key_c &key) {
  const int64_t ts_ms = key.get_orig_key().get_timestamp().count();
  return ts_ms < 0 ? TIME_LIMIT_MS : static_cast<uint64_t>(ts_ms);  // a time before 1970 is as far out
}

void log_fault(sample_fault_e fault, const nom_sample_t &sample, const std::string &name) {
  switch (fault) {
    case sample_fault_e::generation:
      krel_log(krel_error, "Illegal generation (%u) sent for: %s, skipping\n", sample.generation, name.c_str());
      break;
    case sample_fault_e::time:
      krel_log(krel_error, "Y2038 overflow, timestamp too large for 32 bits (%lu)\n", sample.ts_ms);
      break;
    default:
      krel_log(krel_error, "Illegal metric type %x sent for: %s, skipping\n", static_cast<uint8_t>(sample.type),
               name.c_str());
      break;
  }
}

nom_sample_t sample_of(const raw_entry_c &entry) {
  const dorn_record_m_value_t &value = entry.get_value().get_data();
  nom_sample_t sample{entry.get_key()->get_surrogate_id(), time_of(*entry.get_key()),     0,
                      entry.get_value().get_generation(),  static_cast<char>(value.type), value.is_null};
  if (!value.is_null) memcpy(&sample.bits, &value.storage, sizeof sample.bits);
  return sample;
}

// Appends the serialised histogram of an entry; false, and a line in the log, when there is none.
bool append_blob(const raw_entry_c &entry, uint64_t ts_ms, std::string *out) {
  const dorn_record_m_value_t &value = entry.get_value().get_data();
  const bool is_bytes =
      value.type == VELMAR_METRIC_HISTOGRAM || value.type == VELMAR_METRIC_HISTOGRAM_CUMULATIVE;
  if (is_bytes && !value.is_null && value.storage.v_bytes != nullptr) {
    out->append(static_cast<const char *>(value.storage.v_bytes->bytes), value.storage.v_bytes->length);
    return true;
  }
  const histogram_entries_t *const h = is_bytes || value.is_null ? nullptr : value.storage.v_histogram;
  if (h == nullptr || (h->materialized_histogram == nullptr && h->histogram.empty())) {
    krel_log(krel_error, "No histogram entry found for %s (%lu), skipping\n", name_of(entry.get_key()).c_str(),
             ts_ms);
    return false;
  }
  const size_t begin = out->size();
  if (h->materialized_histogram != nullptr) {
    const size_t size = hist_serialize_estimate(h->materialized_histogram.get());
    out->resize(begin + size);
    const ssize_t written = hist_serialize(h->materialized_histogram.get(), out->data() + begin, size);
    krel_assert(written >= 0);
    out->resize(begin + static_cast<size_t>(written));
    return true;
  }
  out->resize(begin + krel_b64_max_decode_len(h->histogram.size()));
  const int64_t decoded =
      krel_b64_decode(h->histogram.data(), h->histogram.size(), out->data() + begin, out->size() - begin);
  if (decoded < 0) {
    krel_log(krel_error, "Invalid base64 histogram: |%s| sent for: %s, skipping\n", h->histogram.c_str(),
             name_of(entry.get_key()).c_str());
    return false;
  }
  out->resize(begin + static_cast<size_t>(decoded));
  return true;
}

bool is_histogram_value(velmar_metric_type_t type) {
  return type == VELMAR_METRIC_HISTOGRAM || type == VELMAR_METRIC_HISTOGRAM_CUMULATIVE ||
         type == VELMAR_METRIC_HISTOGRAM_ENTRY || type == VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY;
}

// The one-sample operand of a histogram entry; empty, with a line in the log, for one to be skipped.
std::string hist_operand(const raw_entry_c &entry) {
  const dorn_record_m_value_t &value = entry.get_value().get_data();
  const uint64_t ts_ms = time_of(*entry.get_key());
  const uint16_t generation = entry.get_value().get_generation();
  if (!is_histogram_value(value.type) || generation >= GENERATION_LIMIT) {
    const auto fault = generation >= GENERATION_LIMIT ? sample_fault_e::generation : sample_fault_e::type;
    log_fault(fault, {0, ts_ms, 0, generation, static_cast<char>(value.type), false}, name_of(entry.get_key()));
    return {};
  }
  if (ts_ms >= TIME_LIMIT_MS) {
    krel_log(krel_error, "Y2038 overflow, timestamp too large (%lu)\n", ts_ms);
    return {};
  }
  const bool cumulative = value.type == VELMAR_METRIC_HISTOGRAM_CUMULATIVE ||
                          value.type == VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY;
  constexpr size_t BLOB_AT = HEADER_LEN + sizeof(hist_offset_measurement_t) + BLOB_LENGTH_LEN;
  std::string operand(BLOB_AT, '\0');
  if (!append_blob(entry, ts_ms, &operand)) return {};
  const rocks_entry_header_t header{0, cumulative ? NOM_TYPE_HISTOGRAM_CUMUL : NOM_TYPE_HISTOGRAM, 1};
  const auto offset = static_cast<uint32_t>(ts_ms % RECORD_SIZE_MS);
  const hist_offset_measurement_t measurement{make_bits(offset, generation, false), 0};
  const uint64_t blob_length = operand.size() - BLOB_AT;
  memcpy(operand.data(), &header, sizeof header);
  memcpy(operand.data() + HEADER_LEN, &measurement, sizeof measurement);
  memcpy(operand.data() + BLOB_AT - BLOB_LENGTH_LEN, &blob_length, sizeof blob_length);
  return operand;
}

}  // namespace

bool data_db_c::try_write(rocksdb_writebatch_t *batch, std::string *error) {
  velmar_db_admin::rocksdb_error_c write_error;
  rocksdb_write(m.db, m_write_options, batch, write_error.ptr());
  if (write_error) *error = write_error.text();
  return !write_error;
}

void data_db_c::pause_s(unsigned seconds) {
  sleep(seconds);
}

// Stores one family's batch, or stops the node: what was accepted must not be lost.
void data_db_c::store(const char *function, std::string_view batch, size_t) {
  rocksdb_writebatch_t *const write_batch = rocksdb_writebatch_create_from(batch.data(), batch.size());
  std::string error;
  for (int retry = 1; !try_write(write_batch, &error); ++retry) {
    krel_log(krel_error, "%s: Error #%d writing to rocksdb: %s\n", function, retry, error.c_str());
    if (retry > WRITE_RETRIES) {
      krel_fatal("%s: Aborting writing to rocksdb after %d retries...\n", function, WRITE_RETRIES);
    }
    pause_s(1);
    krel_log(krel_error, "%s: Sleep in writing to rocksdb and retry %d\n", function, retry);
  }
  rocksdb_writebatch_destroy(write_batch);
}

// Samples that passed check_sample are in the builder, by index.
void data_db_c::merge_samples(std::span<const nom_sample_t> samples) {
  rocksdb_set_perf_level(PERF_LEVEL_DISABLED);
  const krel_shared_lock_c lock(m_crop_lock);
  write_buffers().builder.write_numeric(
      samples, [this](std::string_view batch, size_t count) { store("merge_set", batch, count); });
}

void data_db_c::merge_set(raw_entry_c *entries, size_t count) {
  write_buffers_t &b = write_buffers();
  b.samples.clear();
  b.builder.start(m_family_ids);
  for (size_t i = 0; i < count; ++i) {
    if (entries[i].get_key() == nullptr || !entries[i].get_value().is_valid()) continue;
    const nom_sample_t sample = sample_of(entries[i]);
    if (const sample_fault_e fault = check_sample(sample); fault != sample_fault_e::none) {
      log_fault(fault, sample, name_of(entries[i].get_key()));
      continue;
    }
    b.builder.add(sample.surrogate_id, sample.ts_ms, static_cast<uint32_t>(b.samples.size()));
    b.samples.push_back(sample);
  }
  merge_samples(b.samples);
  if (b.samples.capacity() > KEPT_SAMPLES) b.samples = {};
}

void data_db_c::merge_set_hist(raw_entry_c *entries, size_t count) {
  batch_builder_c &builder = write_buffers().builder;
  builder.start(m_family_ids);
  std::vector<std::string> operands;
  for (size_t i = 0; i < count; ++i) {
    if (entries[i].get_key() == nullptr || !entries[i].get_value().is_valid()) continue;
    std::string operand = hist_operand(entries[i]);
    if (operand.empty()) continue;
    builder.add(entries[i].get_key()->get_surrogate_id(), time_of(*entries[i].get_key()),
                static_cast<uint32_t>(operands.size()));
    operands.push_back(std::move(operand));
  }
  rocksdb_set_perf_level(PERF_LEVEL_DISABLED);
  const krel_shared_lock_c lock(m_crop_lock);
  builder.write_each(
      [&](uint32_t index, std::string *operand) { operand->swap(operands[index]); },
      [this](std::string_view batch, size_t operand_count) { store("merge_set_hist", batch, operand_count); });
}

void data_db_c::count_put(size_t tuples, const krel_perftimer_t &timer) {
  const nom_stats_t &stats = m_merge_state.stats;
  stats_add64(stats.put_tuples, static_cast<int64_t>(tuples));
  stats_set_hist_intscale(stats.put_batchsize, static_cast<int64_t>(tuples), 0, 1);
  stats_set_hist_intscale(stats.put_latency, krel_perftimer_elapsed(&timer), -9, 1);
}

bool data_db_c::refuse_without_shard(size_t count, db::raw::is_raw_write_closure_t *closure) {
  if (open_shard()) return false;
  closure->on_error(db::raw::raw_write_error_c(db::raw::RAW_WRITE_ERROR_NO_SHARD, count));
  closure->on_complete();
  return true;
}

void data_db_c::write_set_asynch(raw_entry_c *entries, size_t count, db::raw::is_raw_write_closure_t *closure) {
  if (refuse_without_shard(count, closure)) return;
  krel_perftimer_t timer;
  krel_perftimer_start(&timer);
  m_datatype == numeric ? merge_set(entries, count) : merge_set_hist(entries, count);
  count_put(count, timer);
  closure->on_success();
  closure->on_complete();
}

void data_db_c::write_numeric_asynch(std::span<const nom_sample_t> samples,
                                     db::raw::is_raw_write_closure_t *closure) {
  krel_assert(m_datatype == numeric);
  if (refuse_without_shard(samples.size(), closure)) return;
  krel_perftimer_t timer;
  krel_perftimer_start(&timer);
  batch_builder_c &builder = write_buffers().builder;
  builder.start(m_family_ids);
  for (uint32_t i = 0; i < samples.size(); ++i) {
    const sample_fault_e fault = check_sample(samples[i]);
    if (fault == sample_fault_e::none) [[likely]] {
      builder.add(samples[i].surrogate_id, samples[i].ts_ms, i);
    } else {
      log_fault(fault, samples[i], "surrogate " + std::to_string(samples[i].surrogate_id));
    }
  }
  merge_samples(samples);
  count_put(samples.size(), timer);
  closure->on_success();
  closure->on_complete();
}

bool data_db_c::write_record(uint64_t surrogate_id, uint32_t block_ts_s, std::string_view record,
                             db::raw::nomdb_type_e kind) {
  const char *const kind_name = kind == db::raw::NUMERIC ? "numeric" : "histogram";
  if (!has_right_checksum(record)) {
    krel_log(krel_error, "Bad checksum on incoming %s reconstitute block\n", kind_name);
    return false;
  }
  const rocks_entry_header_t header = header_of(record);
  const bool right_type = m_datatype == numeric ? is_numeric_type(header.type) : is_histogram_type(header.type);
  if (!right_type || (kind == db::raw::NUMERIC) != (m_datatype == numeric)) {
    krel_log(krel_error, "Bad type on incoming %s reconstitute block (%d)\n", kind_name, header.type);
    return false;
  }
  if (!is_well_formed(record) || block_ts_s % RECORD_SIZE_S != 0) {
    krel_log(krel_error, "Bad shape of incoming %s reconstitute block (%zu bytes, %u measurements, at %u)\n",
             kind_name, record.size(), header.entry_count, block_ts_s);
    return false;
  }
  if (!open_shard()) return false;
  char key[KEY_LEN];
  make_key(surrogate_id, block_ts_s, key);
  velmar_db_admin::rocksdb_error_c error;
  rocksdb_put_cf(m.db, m_write_options, family_handle(surrogate_id), key, KEY_LEN, record.data(), record.size(),
                 error.ptr());
  if (error) krel_log(krel_error, "%s record insertion error: %s\n", kind_name, error.text());
  return !error;
}

}  // namespace velmar_db_raw_nom
