// Raw reads: a job walks the shards and streams the answer; a slow client stalls the walk.

#include "be/raw/rest_raw_get.h"

#include <fmt/format.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "be/common/proxied_read.h"
#include "be/common/range_params.h"
#include "be/hist/hist_shard_mgr.h"
#include "be/hist/hist_stream.h"
#include "be/raw/find_metric.h"
#include "be/raw/raw_mgr.h"
#include "db/raw/reader.h"
#include "db/surrogate/surrogate.h"
#include "libvelmar/topo/topo.h"
#include "libvelmar/util/tolv_proxy_buffer.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"
#include "util/histogram_entries.h"

namespace {

using velmar_be_common::METRIC_PATH;

constexpr size_t FLUSH_BYTES = 65536;
constexpr int LIST_FLUSH_LINES = 100;

krelev_jobq_t *get_jobq = nullptr, *list_jobq = nullptr;

struct raw_get_t {
  krel_http_session_t *session;
  bool histogram;
  bool proxied_to_me;
  const hist_rollup_config_t *rollup = nullptr;  // of a read of histogram rollups
  uint64_t start_ms = 0, end_ms = 0;
  metric_locator_sp locator;
  std::string query;
  // Why there is no answer yet; the answer then is {"error": text} with the code's status.
  int code = REST_OK;
  std::string error;
  int proxy_httpcode = 0;  // of a peer that failed
  bool header_out = false;

  void fail(int with, std::string text) {
    code = with;
    error = std::move(text);
  }
  const char *kind() const { return histogram ? "histogram" : "numeric"; }
  const db::raw::raw_shard_factory_c *factory() const {
    if (rollup) return rest_hist_shard_mgr_get_factory(rollup->index);
    return histogram ? rest_raw_mgr_get_histogram_factory() : rest_raw_mgr_get_numeric_factory();
  }
  std::string route() const {
    if (rollup) return fmt::format("histogram/{}", rollup->period);
    return histogram ? "histogram_raw" : "raw";
  }
};

// ---- parameters

bool parse_params(krel_http_request_t *request, raw_get_t *get, std::string *error) {
  if (krel_http_request_querystring(request, "stream_tags")) {
    *error = "stream_tags param is deprecated, please provide a fully canonical name";
    return false;
  }
  if (!velmar_be_common::parse_range_time(request, "start", "start_ts", &get->start_ms, error) ||
      !velmar_be_common::parse_range_time(request, "end", "end_ts", &get->end_ms, error))
    return false;
  if (get->end_ms < get->start_ms) {
    *error = "\"end\" parameter must be less than or equal to \"start\"";
    return false;
  }
  return true;
}

// ---- streaming

class sample_writer_c {
 public:
  explicit sample_writer_c(raw_get_t *get)
      : m_get(get), m_buffer{get->session, "[", 0}, m_period_s(get->rollup ? get->rollup->period : 0) {
    m_stream.started = false;
    m_flush_samples = rest_raw_mgr_get_streaming_limit(get->histogram);
  }

  // False once the client is gone.
  bool add(uint64_t ts_ms, const dorn_record_m_value_t &value) {
    if (m_period_s && m_count && !fill_until(ts_ms)) return false;
    if (m_get->histogram)
      add_histogram(ts_ms, value);
    else
      add_number(ts_ms, value);
    m_last_ms = ts_ms;
    m_count++;
    return m_count % m_flush_samples != 0 ? flush_some() : flush();
  }
  void end() {
    m_buffer.buffer += "\n]";
    flush();
  }
  size_t count() const { return m_count; }

 private:
  void add_number(uint64_t ts_ms, const dorn_record_m_value_t &value);
  void add_histogram(uint64_t ts_ms, const dorn_record_m_value_t &value);
  bool fill_until(uint64_t ts_ms);
  bool flush_some() { return m_buffer.buffer.size() < FLUSH_BYTES || flush(); }
  bool flush();

  raw_get_t *const m_get;
  flush_buffer_t m_buffer;
  hist_stream_t m_stream;
  const unsigned m_period_s;  // of a rollup
  uint64_t m_last_ms = 0;
  size_t m_count = 0, m_flush_samples;
};

bool sample_writer_c::flush() {
  if (!m_get->header_out) {
    rest_json_header(m_get->session, 200, "OK");
    krel_http_response_option_set(m_get->session, KREL_HTTP_CHUNKED);
    m_get->header_out = true;
  }
  return rest_flush_http_buffer(&m_buffer) == 0;
}

void sample_writer_c::add_number(uint64_t ts_ms, const dorn_record_m_value_t &value) {
  auto out = std::back_inserter(m_buffer.buffer);
  if (m_count) m_buffer.buffer += ',';
  if (value.is_null) {
    fmt::format_to(out, "[{},null]", ts_ms);
    return;
  }
  switch (value.type) {
    case VELMAR_METRIC_INT32:
      fmt::format_to(out, "[{},{}]", ts_ms, value.storage.v_int32);
      break;
    case VELMAR_METRIC_UINT32:
      fmt::format_to(out, "[{},{}]", ts_ms, value.storage.v_uint32);
      break;
    case VELMAR_METRIC_INT64:
      fmt::format_to(out, "[{},{}]", ts_ms, value.storage.v_int64);
      break;
    case VELMAR_METRIC_UINT64:
      fmt::format_to(out, "[{},{}]", ts_ms, value.storage.v_uint64);
      break;
    case VELMAR_METRIC_DOUBLE:
      fmt::format_to(out, "[{},{:f}]", ts_ms, value.storage.v_double);
      break;
    default:
      krel_log(krel_error, "ERROR: Unknown type at %lu - %d\n", static_cast<unsigned long>(ts_ms), value.type);
      fmt::format_to(out, "[{},null]", ts_ms);
  }
}

// The slots of a rollup that have no data between two that have.
bool sample_writer_c::fill_until(uint64_t ts_ms) {
  const hist_ptr empty(hist_alloc());
  const uint64_t period_ms = uint64_t{m_period_s} * 1000;
  for (uint64_t at_ms = m_last_ms + period_ms; at_ms < ts_ms; at_ms += period_ms) {
    krel_log(krel_debug, "Creating filler rollup datapoint %lu\n", at_ms);
    hist_stream(&m_buffer.buffer, &m_stream, at_ms, m_period_s, empty.get());
    if (!flush_some()) return false;
  }
  return true;
}

void sample_writer_c::add_histogram(uint64_t ts_ms, const dorn_record_m_value_t &value) {
  const dorn_record_bytes_t *bytes = value.is_null ? nullptr : value.storage.v_bytes;
  hist_ptr hist(hist_alloc());
  if (bytes &&
      hist_deserialize(hist.get(), bytes->bytes, bytes->length) == static_cast<ssize_t>(bytes->length)) {
    hist_stream(&m_buffer.buffer, &m_stream, ts_ms, m_period_s, hist.get());
    return;
  }
  if (bytes) krel_log(krel_error, "Failed to deserialize histogram: |%zu bytes|\n", bytes->length);
  hist_stream_null(&m_buffer.buffer, &m_stream, ts_ms, m_period_s);
}

// ---- the local read

void read_local(raw_get_t *get) {
  const char *name = velmar_metric_locator_get_name_with_tags(get->locator.get());
  const db::raw::raw_shard_factory_c *factory = get->factory();
  if (!factory)
    return get->fail(REST_SERVER_ERROR, fmt::format("not configured to store raw {} data", get->kind()));
  const metric_locator_sp canonical = be::raw::find_canonical_metric(get->locator);
  const uint64_t id = canonical ? velmar_metric_locator_get_surrogate_id(canonical.get()) : 0;
  if (!canonical) return get->fail(REST_NOT_FOUND, fmt::format("{} not in surrogate-db.", name));
  const int wanted = get->histogram ? METRIC_TYPE_HISTOGRAM : METRIC_TYPE_NUMERIC;
  if (!(velmar_metric_locator_get_type(canonical.get()) & wanted))
    return get->fail(REST_SERVER_ERROR,
                     fmt::format("request made for {} data, but the metric {} is not of {} type.", get->kind(),
                                 name, get->kind()));
  sample_writer_c writer(get);
  std::string error, offline;
  db::raw::reader_c reader(factory);
  const bool complete = reader.read_range(
      canonical, id, get->start_ms, get->end_ms,
      [&](uint64_t ts_ms, db::raw::raw_value_c &&value) { return writer.add(ts_ms, value.get_data()); }, &error,
      &offline);
  if (!complete)
    krel_log(krel_error, "%s read failure (%s, count: %d)\n", get->histogram ? "hist_shard" : "numeric",
             error.c_str(), static_cast<int>(writer.count()));
  if (!offline.empty())
    krel_log(krel_error, "the answer for %s lacks the samples of shards that are offline: %s\n", name,
             offline.c_str());
  writer.end();
}

void read_proxied(raw_get_t *get, const host_config *host) {
  peer_request_t request =
      velmar_be_common::make_proxied_read(host, get->route(), get->locator.get(), get->query);
  tolv_proxy_buffer_t buffer;
  if (!buffer.perform("rest_raw_get", std::move(request))) {
    get->proxy_httpcode = buffer.get_httpcode() ? static_cast<int>(buffer.get_httpcode()) : 500;
    return;
  }
  rest_json_header(get->session, 200, "OK");
  buffer.krel_http_append_mmap_from_fd(get->session);
  get->header_out = true;
}

int rest_raw_get_asynch(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *get = static_cast<raw_get_t *>(closure);
  if (mask == KRELEV_ASYNCH_COMPLETE) krel_http_session_resume_after_float(get->session);
  if (mask != KRELEV_ASYNCH_WORK) return 0;
  const host_config *host = velmar_be_common::pick_best_system(get->locator.get());
  if (!host)
    get->fail(REST_SERVER_ERROR, "no topology: the owners of the metric are not known");
  else if (get->proxied_to_me || host->id == topo_me())
    read_local(get);
  else
    read_proxied(get, host);
  return 0;
}

int rest_raw_complete_get(krel_http_rest_closure_t *restc, int, char **) {
  const auto *get = static_cast<raw_get_t *>(restc->call_closure);
  if (get->code != REST_OK)
    rest_req_fail(get->session, get->code, get->error);
  else if (get->proxy_httpcode)
    write_out_proxy_error_status(get->proxy_httpcode, get->session);
  else
    krel_http_response_end(get->session);
  return 0;
}

int rest_raw_get(krel_http_rest_closure_t *restc, char **pats, bool histogram,
                 const hist_rollup_config_t *rollup = nullptr) {
  krel_http_session_t *session = restc->http_ctx;
  krel_http_request_t *request = krel_http_session_request(session);
  auto get = std::make_unique<raw_get_t>();
  get->session = session;
  get->histogram = histogram;
  get->rollup = rollup;
  get->proxied_to_me = rest_x_velmar_proxied_on(session);
  get->query = krel_http_request_orig_querystring(request);
  std::string error;
  if (!parse_params(request, get.get(), &error)) {
    rest_req_error(session, error);
    return 0;
  }
  krel_uuid_t uuid;
  mem_reader_t name;
  mem_reader_init_mem(&name, pats[1], strlen(pats[1]));
  if (krel_uuid_parse(pats[0], uuid) != 0) {
    krel_log(krel_error, "Unable to parse UUID : %s\n", pats[0]);
    rest_req_error(session, "invalid request");
    return 0;
  }
  get->locator = metric_locator_adopt(
      velmar_metric_locator_create(uuid, &name, histogram ? METRIC_TYPE_HISTOGRAM : METRIC_TYPE_NUMERIC));
  if (!get->locator) {
    krel_log(krel_error, "could not create metric locator for uuid %s, metric name %s\n", pats[0], pats[1]);
    rest_req_error(session, "invalid request");
    return 0;
  }
  restc->call_closure = get.get();
  restc->call_closure_free = [](void *closure) { delete static_cast<raw_get_t *>(closure); };
  restc->fastpath = rest_raw_complete_get;
  velmar_http_go_asynch(get_jobq, rest_raw_get_asynch, get.release(), krel_http_session_connection(session));
  return 0;
}

int rest_raw_get_numeric(krel_http_rest_closure_t *restc, int, char **pats) {
  return rest_raw_get(restc, pats, false);
}
int rest_raw_get_histograms(krel_http_rest_closure_t *restc, int, char **pats) {
  return rest_raw_get(restc, pats, true);
}

int rest_hist_rollup_get(krel_http_rest_closure_t *restc, int, char **pats) {
  uint64_t period = 0;
  if (get_hist_rollup_configs().empty()) {
    rest_req_error(restc->http_ctx, "this endpoint is disabled on legacy histogram databases");
    return 0;
  }
  const hist_rollup_config_t *rollup = krel_parse_uint64(pats[0], &period) && period <= UINT32_MAX
                                           ? hist_mgr_rollup_config(static_cast<unsigned>(period), nullptr)
                                           : nullptr;
  if (!rollup) {
    rest_req_error(restc->http_ctx, "invalid period");
    return 0;
  }
  return rest_raw_get(restc, pats + 1, true, rollup);
}

// ---- lists

struct metric_list_t {
  krel_http_session_t *session;
  int wanted;
  flush_buffer_t buffer;
  size_t lines = 0;
};

bool add_metric(const metric_locator_sp &locator, void *closure) {
  auto *list = static_cast<metric_list_t *>(closure);
  if (!(velmar_metric_locator_get_type(locator.get()) & list->wanted)) return true;
  std::string key(velmar_metric_locator_get_name_len_with_tags(locator.get()) + 38, '\0');
  velmar_metric_locator_get_key(locator.get(), key.data(), key.size());
  key.pop_back();
  list->buffer.buffer += list->lines++ ? ",\n  " : "\n  ";
  list->buffer.buffer += rest_json_quote(key);
  return list->lines % LIST_FLUSH_LINES != 0 || rest_flush_http_buffer(&list->buffer) == 0;
}

int rest_list_metrics_asynch(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *list = static_cast<metric_list_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) {
    rest_json_header(list->session, 200, "OK");
    krel_http_response_option_set(list->session, KREL_HTTP_CHUNKED);
    list->buffer.buffer = "{\"metrics\": [";
    if (const auto lookup = velmar_global_surrogate_get_lookup_synch())
      lookup->for_each_surrogate(add_metric, list);
    list->buffer.buffer += "\n]\n}";
    rest_flush_http_buffer(&list->buffer);
  }
  if (mask == KRELEV_ASYNCH_COMPLETE) krel_http_session_resume_after_float(list->session);
  return 0;
}

int rest_list_metrics_close(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_response_end(restc->http_ctx);
  return 0;
}

int rest_list_metrics(krel_http_rest_closure_t *restc, int wanted) {
  auto *list = new metric_list_t{restc->http_ctx, wanted, {restc->http_ctx, "", 0}};
  restc->call_closure = list;
  restc->call_closure_free = [](void *closure) { delete static_cast<metric_list_t *>(closure); };
  restc->fastpath = rest_list_metrics_close;
  velmar_http_go_asynch(list_jobq, rest_list_metrics_asynch, list,
                        krel_http_session_connection(restc->http_ctx));
  return 0;
}

int rest_numeric_list_metrics(krel_http_rest_closure_t *restc, int, char **) {
  return rest_list_metrics(restc, METRIC_TYPE_NUMERIC);
}
int rest_hist_shard_list_metrics(krel_http_rest_closure_t *restc, int, char **) {
  return rest_list_metrics(restc, METRIC_TYPE_HISTOGRAM);
}

}  // namespace

void rest_raw_get_init() {
  get_jobq = krelev_jobq_retrieve("velmar_rest_raw_get");
  list_jobq = krelev_jobq_retrieve("velmar_raw_metric_list");
  krel_assert(get_jobq && list_jobq);
  krelev_name_callback("rest_raw_get_asynch", rest_raw_get_asynch);
  krelev_name_callback("rest_list_metrics_asynch", rest_list_metrics_asynch);
  krel_assert(krel_http_rest_register("GET", "/raw/", "^list_metrics$", rest_numeric_list_metrics) == 0);
  krel_assert(krel_http_rest_register("GET", "/histogram/", "^list_metrics$", rest_hist_shard_list_metrics) ==
              0);
  krel_assert(krel_http_rest_register("GET", "/raw/", METRIC_PATH, rest_raw_get_numeric) == 0);
  krel_assert(krel_http_rest_register("GET", "/histogram_raw/", METRIC_PATH, rest_raw_get_histograms) == 0);
  const std::string rollup_path = std::string("^([0-9]{1,10})/") + (METRIC_PATH + 1);
  krel_assert(krel_http_rest_register("GET", "/histogram/", rollup_path.c_str(), rest_hist_rollup_get) == 0);
}
