// The two FlatBuffers forms: a list of metrics with one sample each, and one with many.

#include <sys/stat.h>

#include <cmath>
#include <cstring>

#include "be/raw/raw_put_parse.h"
#include "fbs32/metric_list_dorn_generated.h"
#include "fbs32/metric_list_relay_generated.h"
#include "global/velmar_global_state.h"
#include "ingestion/metric_validation.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/io/files.h"
#include "util/raw_record.h"

namespace be::raw {

namespace {

constexpr size_t MAX_NAME = 4096;
constexpr uint16_t GENERATION_LIMIT = 512;
constexpr uint32_t MAX_TABLES = 200000000;
constexpr uint32_t MAX_DEPTH = 16;
constexpr const char *FUNCTION = "rest_raw_mgr_parse_flatbuffer";

// The metric of a record as far as the record itself tells.
struct record_t {
  uint8_t uuid[16];
  int32_t account_id;
  const flatbuffers::String *name;
  const flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>> *stream_tags;
};

class fb_parser_c {
 public:
  fb_parser_c(raw_put_request_t *request, known_metrics_c *known, size_t batch_size,
              const std::function<void(raw_batch_t &&)> &flush)
      : m_counters(request->counters),
        m_known(known),
        m_batch_size(batch_size),
        m_flush(flush),
        m_now_ms(krel_now_ms()) {}

  void parse(const tolvanus_relay_v1::MetricList &list);
  void parse(const dorn::MetricList &list);
  void flush() {
    if (!m_batch.empty()) m_flush(std::move(m_batch));
    m_batch = {};
  }

 private:
  bool set_name(const record_t &record);
  template <typename Histogram>
  static hist_ptr make_histogram(const Histogram &histogram);
  // The five numbers and the numeric null of either form; false for anything else.
  template <typename Union, typename Sample>
  static bool numeric_value(const Sample &sample, dorn_record_m_value_t *value);
  template <typename Union, typename Sample>
  void sample(const record_t &record, const Sample &sample, uint64_t timestamp);
  void add_numeric(const record_t &record, const dorn_record_m_value_t &value, uint16_t generation,
                   uint64_t time_ms);
  void add_histogram(const record_t &record, hist_ptr histogram, bool cumulative, uint64_t time_ms);
  void count(batch_add_e result);
  void skip() { m_counters.errors.fetch_add(1, std::memory_order_relaxed); }

  atomic_counters_t &m_counters;
  known_metrics_c *m_known;
  const size_t m_batch_size;
  const std::function<void(raw_batch_t &&)> &m_flush;
  const uint64_t m_now_ms;
  raw_batch_t m_batch;
  std::string m_name;  // of the record in work, with its tags
  size_t m_record = 0;
};

// The name, with the tags behind it when it has none of its own.
bool fb_parser_c::set_name(const record_t &record) {
  m_name.assign(record.name ? record.name->string_view() : std::string_view());
  if (m_name.size() > MAX_NAME) {
    krel_log(krel_error, "Metric name too long in flatbuffer record %zu: %.200s\n", m_record, m_name.c_str());
    return false;
  }
  if (record.stream_tags && record.stream_tags->size() && m_name.find("|ST[") == std::string::npos) {
    m_name += "|ST[";
    for (flatbuffers::uoffset_t i = 0; i < record.stream_tags->size(); i++) {
      if (i) m_name += ',';
      m_name += record.stream_tags->Get(i)->string_view();
      if (m_name.size() > 2 * MAX_NAME) break;
    }
    m_name += ']';
  }
  if (m_name.size() > MAX_NAME) {
    krel_log(krel_error, "Metric name in record %zu: '%.200s' too long (%lu), skipping\n", m_record,
             m_name.c_str(), static_cast<unsigned long>(m_name.size()));
    return false;
  }
  if (m_name.find('\0') != std::string::npos) {
    krel_log(krel_error, "Unparseable metric name encountered in record %zu, skipping\n", m_record);
    return false;
  }
  return true;
}

template <typename Histogram>
hist_ptr fb_parser_c::make_histogram(const Histogram &histogram) {
  const auto *buckets = histogram.buckets();
  hist_ptr hist(hist_fast_alloc_nbins(buckets ? static_cast<int>(buckets->size()) : 0));
  if (!buckets) return hist;
  for (const auto *bucket : *buckets) {
    hist_bucket_t bin{};
    bin.val = bucket->val();
    bin.exp = bucket->exp();
    hist_insert_raw(hist.get(), bin, bucket->count());
  }
  return hist;
}

template <typename Union, typename Sample>
bool fb_parser_c::numeric_value(const Sample &sample, dorn_record_m_value_t *value) {
  *value = {};
  switch (sample.value_type()) {
    case Union::IntValue:
      value->type = VELMAR_METRIC_INT32;
      value->storage.v_int32 = sample.value_as_IntValue()->value();
      return true;
    case Union::UintValue:
      value->type = VELMAR_METRIC_UINT32;
      value->storage.v_uint32 = sample.value_as_UintValue()->value();
      return true;
    case Union::LongValue:
      value->type = VELMAR_METRIC_INT64;
      value->storage.v_int64 = sample.value_as_LongValue()->value();
      return true;
    case Union::UlongValue:
      value->type = VELMAR_METRIC_UINT64;
      value->storage.v_uint64 = sample.value_as_UlongValue()->value();
      return true;
    case Union::DoubleValue:
      value->type = VELMAR_METRIC_DOUBLE;
      value->storage.v_double = sample.value_as_DoubleValue()->value();
      return std::isfinite(value->storage.v_double);
    case Union::AbsentNumericValue:
      value->type = VELMAR_METRIC_DOUBLE;
      value->is_null = true;
      return true;
    default:
      return false;
  }
}

void fb_parser_c::count(batch_add_e result) {
  if (result == batch_add_e::misdirected) {
    m_counters.noti.fetch_add(1, std::memory_order_relaxed);
  } else if (result == batch_add_e::bad_name) {
    skip();
    krel_log(krel_error, "Could not create metric_locator from name in record %zu: %s\n", m_record,
             m_name.c_str());
  }
}

void fb_parser_c::add_numeric(const record_t &record, const dorn_record_m_value_t &value, uint16_t generation,
                              uint64_t time_ms) {
  if (generation >= GENERATION_LIMIT) {
    skip();
    krel_log(krel_error, "Illegal generation (%u) sent for: %s, skipping\n", generation, m_name.c_str());
    return;
  }
  const batch_add_e result = raw_batch_add_numeric(&m_batch, m_known, {record.uuid, record.account_id, m_name},
                                                   time_ms, value, generation);
  if (result == batch_add_e::added || result == batch_add_e::misdirected) {
    const velmar_metric_locator_t *locator = m_batch.numerics.back().locator.get();
    db::ingestion::log_old_data(FUNCTION, time_ms, m_now_ms, locator);
    if (raw_mgr_discards(locator)) {
      m_counters.discarded.fetch_add(1, std::memory_order_relaxed);
      raw_batch_drop_last(&m_batch);
      return;
    }
  }
  count(result);
}

void fb_parser_c::add_histogram(const record_t &record, hist_ptr histogram, bool cumulative, uint64_t time_ms) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, m_name.data(), m_name.size());
  const auto locator = metric_locator_adopt(
      velmar_metric_locator_create_full(record.account_id, METRIC_TYPE_HISTOGRAM, record.uuid, &reader));
  if (!locator) return count(batch_add_e::bad_name);
  db::ingestion::log_old_data(FUNCTION, time_ms, m_now_ms, locator.get());
  if (raw_mgr_discards(locator.get())) {
    m_counters.discarded.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  count(raw_batch_add_histogram(&m_batch, locator, time_ms, std::move(histogram), cumulative));
}

template <typename Union, typename Sample>
void fb_parser_c::sample(const record_t &record, const Sample &sample, uint64_t timestamp) {
  m_counters.processed.fetch_add(1, std::memory_order_relaxed);
  const auto time = db::ingestion::cleanse_time_at(timestamp, m_now_ms);
  if (!time.valid) {
    skip();
    krel_log(krel_error, "Invalid timestamp for metric %s: %zu\n", m_name.c_str(),
             static_cast<size_t>(timestamp));
    return;
  }
  dorn_record_m_value_t value;
  if (numeric_value<Union>(sample, &value)) {
    add_numeric(record, value, sample.generation(), time.time);
  } else if (const auto *histogram = sample.value_as_Histogram()) {
    add_histogram(record, make_histogram(*histogram), histogram->cumulative(), time.time);
  } else {
    skip();
    krel_log(krel_error, "this node stores no sample of the kind in record %zu, metric %s\n", m_record,
             m_name.c_str());
  }
  if (m_batch.size() >= m_batch_size) flush();
}

void fb_parser_c::parse(const tolvanus_relay_v1::MetricList &list) {
  if (!list.metrics()) return;
  for (const auto *metric : *list.metrics()) {
    m_record++;
    const auto *value = metric->value();
    record_t record{
        {}, metric->account_id(), value ? value->name() : nullptr, value ? value->stream_tags() : nullptr};
    const bool has_uuid =
        metric->check_uuid() && krel_uuid_parse(metric->check_uuid()->c_str(), record.uuid) == 0;
    if (!has_uuid) krel_log(krel_error, "Unparseable check_uuid in record %zu skipping\n", m_record);
    if (!has_uuid || !value || !set_name(record)) {
      m_counters.processed.fetch_add(1, std::memory_order_relaxed);
      skip();
      continue;
    }
    sample<tolvanus_relay_v1::MetricValueUnion>(record, *value,
                                                value->timestamp() ? value->timestamp() : metric->timestamp());
  }
}

void fb_parser_c::parse(const dorn::MetricList &list) {
  if (!list.metrics()) return;
  for (const auto *metric : *list.metrics()) {
    m_record++;
    const auto *value = metric->value();
    const auto *samples = value ? value->samples() : nullptr;
    if (!samples) continue;
    record_t record{{}, metric->account_id(), value->name(), value->stream_tags()};
    const bool has_uuid = metric->check_uuid() && metric->check_uuid()->size() == sizeof(record.uuid);
    if (has_uuid)
      memcpy(record.uuid, metric->check_uuid()->data(), sizeof(record.uuid));
    else
      krel_log(krel_error, "Unparseable check_uuid in record %zu skipping\n", m_record);
    if (!has_uuid || !set_name(record)) {
      m_counters.processed.fetch_add(samples->size(), std::memory_order_relaxed);
      m_counters.errors.fetch_add(samples->size(), std::memory_order_relaxed);
      continue;
    }
    for (const auto *s : *samples)
      sample<dorn::MetricValueUnion>(record, *s, s->timestamp() ? s->timestamp() : metric->timestamp());
  }
}

// Keeps the newest bad buffer for diagnosis, when someone listens on "debug/fb".
void log_bad_flatbuffers(raw_put_request_t *request, raw_mgr_flatbuffers_e form, std::string_view bytes) {
  const char *const why = "buffer verification failed";
  krel_log(krel_error, "Failed to verify %sMetricList: %s\n",
           form == RAW_FLATBUFFERS_RELAY_V1 ? "(relay) " : "", why);
  request->set_error(400, fmt::format("failed to parse flatbuffer data: {}\n", why));
  if (!krel_log_stream_exists("debug/fb")) return;
  static krel_mutex_c mutex;  // one writer of the file
  const krel_lock_c lock(mutex);
  const std::string path = std::string(velmar_global_get_local_state_dir()) + "/.flatbuf_diagnose";
  if (const auto code = util::io::atomic_replace(path, bytes))
    krel_log(krel_error, "cannot keep the bad buffer in %s: %s\n", path.c_str(), code.message().c_str());
}

}  // namespace

bool rest_raw_mgr_parse_flatbuffer(raw_put_request_t *request, known_metrics_c *known,
                                   raw_mgr_flatbuffers_e form, std::string_view bytes, size_t batch_size,
                                   const std::function<void(raw_batch_t &&)> &flush) {
  ingestion_gate_mgr_c::count_parse();
  const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
  flatbuffers::Verifier verifier(data, bytes.size(), MAX_DEPTH, MAX_TABLES);
  const bool relay = form == RAW_FLATBUFFERS_RELAY_V1;
  if (relay ? !tolvanus_relay_v1::VerifyMetricListBuffer(verifier) : !dorn::VerifyMetricListBuffer(verifier)) {
    log_bad_flatbuffers(request, form, bytes);
    return false;
  }
  fb_parser_c parser(request, known, batch_size, flush);
  if (relay)
    parser.parse(*tolvanus_relay_v1::GetMetricList(data));
  else
    parser.parse(*dorn::GetMetricList(data));
  parser.flush();
  return true;
}

}  // namespace be::raw
