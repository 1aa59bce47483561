// The text form: one sample a line.

#include <algorithm>
#include <cstring>

#include "be/raw/raw_put_parse.h"
#include "db/raw/nom/nom_format.h"
#include "ingestion/metric_validation.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/raw_record.h"

namespace be::raw {

namespace {

constexpr size_t MAX_NAME = 4096;
constexpr const char *FUNCTION = "rest_raw_mgr_parse_ingestion_data";

std::atomic<discard_filter_f> discard_filter{nullptr};

class text_parser_c {
 public:
  text_parser_c(raw_put_request_t *request, known_metrics_c *known, raw_batch_t *batch)
      : m_counters(request->counters), m_known(known), m_batch(batch), m_now_ms(krel_now_ms()) {}

  void line(char *text, size_t length);
  void flush_counts() {
    m_counters.errors.fetch_add(m_errors, std::memory_order_relaxed);
    m_counters.noti.fetch_add(m_misdirected, std::memory_order_relaxed);
    m_counters.discarded.fetch_add(m_discarded, std::memory_order_relaxed);
  }

 private:
  void metric(char *text, const mem_reader_t &fields);
  void histogram(const mem_reader_t &line);
  void count(batch_add_e result, std::string_view name);
  bool discard_last();

  atomic_counters_t &m_counters;
  known_metrics_c *m_known;
  raw_batch_t *m_batch;
  const uint64_t m_now_ms;
  uint32_t m_errors = 0, m_misdirected = 0, m_discarded = 0;
};

void text_parser_c::count(batch_add_e result, std::string_view name) {
  if (result == batch_add_e::misdirected) {
    m_misdirected++;
    krel_log(krel_debug, "%s: Received metric that I don't own: %.*s\n", FUNCTION,
             static_cast<int>(name.size()), name.data());
  } else if (result == batch_add_e::bad_name) {
    m_errors++;
    krel_log(krel_error, "Could not parse metric name: %.*s\n", static_cast<int>(name.size()), name.data());
  }
}

// The sample just added, if the account's filter drops it.
bool text_parser_c::discard_last() {
  if (!raw_mgr_discards(m_batch->numerics.back().locator.get())) return false;
  m_discarded++;
  raw_batch_drop_last(m_batch);
  return true;
}

void text_parser_c::metric(char *text, const mem_reader_t &input) {
  dorn_record_fields_t fields;
  dorn_record_m_value_t value;
  mem_reader_t check_name;
  uint8_t uuid[16];
  uint32_t account_id;
  uint64_t whence_ms;
  if (!dorn_record_split_m(&input, &fields) ||
      !dorn_record_parse_m_timestamp(mem_reader_view(fields.time), &whence_ms) ||
      !dorn_record_parse_check(&fields.check, &check_name, uuid, &account_id) ||
      !dorn_record_value_from_fields(mem_reader_view(fields.type), &fields.value, &value)) {
    m_errors++;
    krel_log(krel_error, "Failed parse: %s\n", text);
    return;
  }
  const std::string_view name = mem_reader_view(fields.name);
  if (name.size() > MAX_NAME) {
    m_errors++;
    krel_log(krel_error, "Metric name too long M record: %s\n", text);
    return;
  }
  if (value.type == VELMAR_METRIC_STRING) {
    m_errors++;
    krel_log(krel_error, "this node stores no text samples, metric %.*s\n", static_cast<int>(name.size()),
             name.data());
    return;
  }
  if (!velmar_db_raw_nom::metric_to_nom_type(static_cast<char>(value.type))) {
    m_errors++;
    krel_log(krel_error, "Failed parse: %s\n", text);
    return;
  }
  const auto time = db::ingestion::cleanse_time_at(whence_ms, m_now_ms);
  if (!time.valid) {
    m_errors++;
    krel_log(krel_error, "%s: cannot add record with invalid timestamp for metric %.*s: %zums\n", FUNCTION,
             static_cast<int>(name.size()), name.data(), static_cast<size_t>(whence_ms));
    return;
  }
  const batch_add_e result = raw_batch_add_numeric(
      m_batch, m_known, {uuid, static_cast<int32_t>(account_id), name}, time.time, value, 0);
  if (result != batch_add_e::bad_name) {
    if (db::ingestion::logs_old_data())
      db::ingestion::log_old_data(FUNCTION, time.time, m_now_ms, m_batch->numerics.back().locator.get());
    if (discard_last()) return;
  }
  count(result, name);
}

void text_parser_c::histogram(const mem_reader_t &line) {
  histogram_line_t decoded;
  if (decode_histogram_string(&line, &decoded) < 0) {
    m_errors++;
    krel_log(krel_error, "Couldn't decode histogram record: -%s-\n", line.input_buffer);
    return;
  }
  const velmar_metric_locator_t *locator = decoded.metric_locator.get();
  db::ingestion::log_old_data(FUNCTION, decoded.whence_ms, m_now_ms, locator);
  const auto time = db::ingestion::cleanse_time_at(decoded.whence_ms, m_now_ms);
  if (!time.valid) {
    m_errors++;
    krel_log(krel_error, "%s: cannot add record with invalid timestamp for histogram metric %s: %zums\n",
             FUNCTION, velmar_metric_locator_get_name_with_tags(locator),
             static_cast<size_t>(decoded.whence_ms));
    return;
  }
  if (raw_mgr_discards(locator)) {
    m_discarded++;
    return;
  }
  count(raw_batch_add_histogram(m_batch, decoded.metric_locator, time.time, std::move(decoded.histogram),
                                decoded.cumulative),
        velmar_metric_locator_get_name_with_tags(locator));
}

// `text` has `length` characters and a terminator behind them.
void text_parser_c::line(char *text, size_t length) {
  mem_reader_t all, rest;
  mem_reader_init_mem(&all, text, length);
  const char *tab = static_cast<const char *>(memchr(text, '\t', length));
  if (!tab) {
    m_errors++;
    krel_log(krel_error, "Null Record Type Received: -%s-\n", text);
    return;
  }
  const std::string_view type(text, static_cast<size_t>(tab - text));
  mem_reader_init_mem(&rest, tab + 1, length - type.size() - 1);
  if (type == "M") {
    metric(text, rest);
  } else if (const auto kind = dorn_record_type_lookup(type);
             kind == DORN_RECORD_TYPE_H1 || kind == DORN_RECORD_TYPE_H2) {
    histogram(all);
  } else {
    m_errors++;
    krel_log(krel_error, "Invalid record type: %.*s\n", static_cast<int>(type.size()), type.data());
  }
}

}  // namespace

void raw_mgr_set_discard_filter(discard_filter_f filter) {
  discard_filter.store(filter);
}

bool raw_mgr_discards(const velmar_metric_locator_t *locator) {
  const discard_filter_f filter = discard_filter.load(std::memory_order_relaxed);
  return filter && filter(velmar_metric_locator_get_account_id(locator), locator);
}

bool rest_raw_mgr_parse_ingestion_data(raw_put_request_t *request, known_metrics_c *known, char *text,
                                       size_t length, size_t line_count, raw_batch_t *batch) {
  ingestion_gate_mgr_c::count_parse();
  request->counters.processed.fetch_add(static_cast<uint32_t>(line_count), std::memory_order_relaxed);
  batch->samples.reserve(line_count);
  batch->numerics.reserve(line_count);
  text_parser_c parser(request, known, batch);
  char *at = text, *const end = text + length;
  for (size_t lines = 0; at < end; lines++) {
    char *newline = static_cast<char *>(memchr(at, '\n', static_cast<size_t>(end - at)));
    if (!newline) break;
    if (lines >= line_count) {
      krel_log(krel_error, "Too many records\n");
      request->counters.errors.fetch_add(static_cast<uint32_t>(line_count), std::memory_order_relaxed);
      *batch = {};
      return false;
    }
    *newline = '\0';
    if (newline != at) parser.line(at, static_cast<size_t>(newline - at));
    at = newline + 1;
  }
  parser.flush_counts();
  return true;
}

}  // namespace be::raw
