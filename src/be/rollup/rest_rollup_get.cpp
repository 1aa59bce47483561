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

class rest_get_data_c {
 public:
  void init();
  int rest_get(krel_http_rest_closure_t *restc, char **pats) const;

 private:
  struct target_t {
    bool local;
    const host_config *host;  // null and not local: nobody
  };
  static target_t should_proxy(krel_http_session_t *session, const velmar_metric_locator_t *locator);
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

int rest_get_data_asynch(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *read = static_cast<rest_closure_c *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) read->work();
  if (mask == KRELEV_ASYNCH_COMPLETE) {
    if (read->is_broken())
      krel_http_session_fail(read->get_session());
    else
      krel_http_session_resume_after_float(read->get_session());
  }
  return 0;
}

int write_out_response(krel_http_rest_closure_t *restc, int, char **) {
  static_cast<rest_closure_c *>(restc->call_closure)->write_out_response();
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

rest_get_data_c::target_t rest_get_data_c::should_proxy(krel_http_session_t *session,
                                                        const velmar_metric_locator_t *locator) {
  const host_config *host = velmar_be_common::pick_best_system(locator);
  if (host && host->id == topo_me()) return {true, host};
  // what was forwarded once goes no further
  return {false, rest_x_velmar_proxied_on(session) ? nullptr : host};
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
  const target_t target = should_proxy(session, locator.get());
  if (!target.local && !target.host) return refuse("no acceptable system found");

  std::unique_ptr<rest_closure_c> closure;
  if (target.local)
    closure = std::make_unique<rest_get_closure_c>(session, params, locator, data_type);
  else
    closure = std::make_unique<rest_proxy_closure_c>(session, params, locator, data_type, target.host);
  restc->call_closure = closure.get();
  restc->call_closure_free = [](void *read) { delete static_cast<rest_closure_c *>(read); };
  restc->fastpath = write_out_response;
  velmar_http_go_asynch(target.local ? m_local_jobq : m_proxy_jobq, rest_get_data_asynch, closure.release(),
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
