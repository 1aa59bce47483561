// GET /rollup: checks the request, decides who reads, and leaves the loop once for the read and the answer.

#include "be/rollup/rest_rollup_get.h"

#include <cstring>
#include <memory>
#include <string>

#include "be/common/accept.h"
#include "be/common/proxied_read.h"
#include "be/nntbs/nntbs_mgr.h"
#include "be/raw/find_metric.h"
#include "be/raw/raw_mgr.h"
#include "be/rollup/rest_get_closure.h"
#include "be/rollup/rest_proxy_closure.h"
#include "db/ranged/readers.h"
#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace {

using namespace velmar_be_rollup;

constexpr const char *LOCAL_JOBQ = "velmar_db_ranged_nnt", *PROXY_JOBQ = "velmar_rollup_proxy_get";
constexpr uint64_t MAX_CELLS = 1'000'000;

// A request from its checks to its answer.
struct rollup_request_t {
  krel_http_session_t *session;
  parsed_params_c params;
  metric_locator_sp locator;
  data_type_e data_type;
  const host_config *host;  // who answers
  bool may_move = false;    // not sent on to here by another node
  std::unique_ptr<rest_closure_c> read{};
  bool has_ended = false;  // the job: it has an answer or an error

  bool should_proxy() const;
  void work();
};

class rest_get_data_c {
 public:
  void init();
  int rest_get(krel_http_rest_closure_t *restc, char **pats) const;

 private:
  bool find_data_type(krel_http_request_t *request, data_type_e *out) const;
  static metric_locator_sp find_locator(const char *uuid_text, const char *name, std::string *error);

  krelev_jobq_t *m_local_jobq = nullptr, *m_proxy_jobq = nullptr;
  velmar_be_accept_types_t m_types;
  uint64_t m_max_cells = MAX_CELLS;
};

rest_get_data_c &rest_get_data() {
  static rest_get_data_c instance;
  return instance;
}

// Some of the cells asked for are in a shard that is offline here.
bool is_offline(const parsed_params_c &params) {
  unsigned collapse = 0;
  const uint64_t start_s = params.m_start / 1000;
  const rollup_config_t *rollup = rollup_config_get_rollup_for_period(
      nntbs_mgr_get_rollup_configs(), static_cast<unsigned>(params.m_rollup_span / 1000), &collapse, start_s);
  return rollup && nntbs_shard_maintenance_is_offline(rollup->period, start_s, params.m_end / 1000);
}

// Whether another node is to answer, on the loop thread: by who owns the metric alone.
bool rollup_request_t::should_proxy() const {
  return host && host->id != topo_me();
}

// On the job. An owner whose shards are offline has another owner answer, if there is one.
void rollup_request_t::work() {
  if (!should_proxy() && may_move && is_offline(params))
    host = velmar_be_common::pick_best_system_prefer_remote(locator.get());
  if (should_proxy())
    read = std::make_unique<rest_proxy_closure_c>(session, params, locator, data_type, host);
  else
    read = std::make_unique<rest_get_closure_c>(session, params, locator, data_type);
  read->work();
  has_ended = !read->is_broken();
}

int rest_get_data_asynch(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *request = static_cast<rollup_request_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) request->work();
  if (mask == KRELEV_ASYNCH_COMPLETE) {
    if (request->has_ended)
      krel_http_session_resume_after_float(request->session);
    else
      krel_http_session_fail(request->session);
  }
  return 0;
}

int write_out_response(krel_http_rest_closure_t *restc, int, char **) {
  static_cast<rollup_request_t *>(restc->call_closure)->read->write_out_response();
  return 0;
}

int rest_rollup_get(krel_http_rest_closure_t *restc, int, char **pats) {
  return rest_get_data().rest_get(restc, pats);
}

void rest_get_data_c::init() {
  m_local_jobq = krelev_jobq_retrieve(LOCAL_JOBQ);
  m_proxy_jobq = krelev_jobq_retrieve(PROXY_JOBQ);
  krel_assert(m_local_jobq && m_proxy_jobq);
  velmar_be_common_init_accept_types(&m_types, {JSON_TYPE, NNT_TYPE});
  uint32_t concurrency = 0;
  if (krel_conf_get_uint32(KREL_CONF_ROOT, "//pools/rest_get/@concurrency", &concurrency))
    krel_log(
        krel_error,
        "WARNING: Configuration via 'pools/rest_get' is no longer supported. The configured 'pools' value (%u) "
        "will be ignored. Override the '%s' jobq in krelev configuration to change this value.\n",
        concurrency, PROXY_JOBQ);
  int32_t timeout_ms = 0;
  krel_conf_get_int32(KREL_CONF_ROOT, "//proxy/rest_get/@timeout_ms", &timeout_ms);
  rest_proxy_set_timeout(timeout_ms);
  krel_conf_get_uint64(KREL_CONF_ROOT, "//rest/rollup/@max_cells", &m_max_cells);
}

bool rest_get_data_c::find_data_type(krel_http_request_t *request, data_type_e *out) const {
  *out = data_type_e::json;
  const char *accept = krel_http_request_header(request, "accept");
  if (!accept) return true;
  const auto type = velmar_be_common_find_accept_type(m_types, accept);
  if (type && *type == NNT_TYPE) *out = data_type_e::nnt;
  return type.has_value();
}

// A metric that samples arrive for is found by its name as it stands; others are parsed.
metric_locator_sp rest_get_data_c::find_locator(const char *uuid_text, const char *name, std::string *error) {
  krel_uuid_t uuid;
  if (krel_uuid_parse(uuid_text, uuid) != 0) {
    *error = "bad id";
    return nullptr;
  }
  if (metric_locator_sp known = be::raw::find_known_metric(uuid, name)) return known;
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name, strlen(name));
  metric_locator_sp locator =
      metric_locator_adopt(velmar_metric_locator_create(uuid, &reader, METRIC_TYPE_NUMERIC));
  if (!locator) *error = "cannot parse metric name";
  return locator;
}

int rest_get_data_c::rest_get(krel_http_rest_closure_t *restc, char **pats) const {
  krel_http_session_t *session = restc->http_ctx;
  krel_http_request_t *request = krel_http_session_request(session);
  const auto refuse = [session](std::string_view error) {
    rest_req_error(session, error);
    return 0;
  };
  if (!pats[0] || !pats[1]) return refuse("invalid request");
  const parsed_params_c params = parsed_params_c::parse(request);
  if (!params.m_valid) return refuse(params.m_error);
  data_type_e data_type;
  if (!find_data_type(request, &data_type)) return refuse("cannot return requested data type");
  if (params.get_cell_count() > m_max_cells) {
    rest_req_invalid(session, "too much data");
    return 0;
  }
  std::string error;
  const metric_locator_sp locator = find_locator(pats[0], pats[1], &error);
  if (!locator) return refuse(error);
  const host_config *host = velmar_be_common::pick_best_system(locator.get());
  auto get = std::make_unique<rollup_request_t>(rollup_request_t{session, params, locator, data_type, host});
  const bool proxy = get->should_proxy();
  get->may_move = !rest_x_velmar_proxied_on(session);
  // what was sent on once goes no further
  if (!host || (proxy && !get->may_move)) return refuse("no acceptable system found");
  restc->call_closure = get.get();
  restc->call_closure_free = [](void *closure) { delete static_cast<rollup_request_t *>(closure); };
  restc->fastpath = write_out_response;
  velmar_http_go_asynch(proxy ? m_proxy_jobq : m_local_jobq, rest_get_data_asynch, get.release(),
                        krel_http_session_connection(session));
  return 0;
}

}  // namespace

void rest_rollup_get_init() {
  db::ranged::ranged_readers_params_t params;
  params.rollups = &nntbs_mgr_get_rollup_configs();
  params.raw = rest_raw_mgr_get_numeric_factory();
  params.lookup = velmar_global_surrogate_get_lookup_synch();
  db::ranged::ranged_readers_init(params);
  rest_get_data().init();
  krelev_name_callback("rest_get_data_asynch", rest_get_data_asynch);
  krel_assert(krel_http_rest_register("GET", "/rollup/", velmar_be_common::METRIC_PATH, rest_rollup_get) == 0);
}

void rest_rollup_get_close() {
  db::ranged::ranged_readers_close();
}
