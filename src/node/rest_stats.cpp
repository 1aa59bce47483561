#include "node/rest_stats.h"

#include <string>
#include <string_view>

#include "node/version.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/http/krel_http.h"
#include "platform/tolvmetrics/stats.h"
#include "rest/rest_helpers.h"
#include "util/velmar_stats.h"

namespace {

const char *const SEMVER = "0.1.0";

struct stats_request_t {
  krel_http_session_t *session;
  bool prometheus, tagged, simple, reset;
  std::string body;
};

int render_job(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *r = static_cast<stats_request_t *>(closure);
  stats_recorder_t *recorder = velmar_stats_get_recorder();
  if (mask == KRELEV_ASYNCH_WORK)
    r->body = r->prometheus ? stats_recorder_output_prometheus(recorder)
              : r->tagged   ? stats_recorder_output_json_tagged(recorder, r->reset)
                            : stats_recorder_output_json(recorder, r->simple, r->reset);
  if (mask == KRELEV_ASYNCH_COMPLETE) krel_http_session_resume_after_float(r->session);
  return 0;
}

int answer(krel_http_rest_closure_t *restc, int, char **) {
  const auto *r = static_cast<stats_request_t *>(restc->call_closure);
  krel_http_response_status_set(r->session, 200, "OK");
  krel_http_response_header_set(
      r->session, "Content-Type",
      r->prometheus ? "text/plain; version=0.0.4; charset=utf-8" : "application/json");
  krel_http_response_option_set(r->session, KREL_HTTP_COMPRESS);
  krel_http_response_append(r->session, r->body.data(), r->body.size());
  krel_http_response_end(r->session);
  return 0;
}

// Reading the figures takes locks and walks every thread's cells: that is a job's work, not a loop's.
int start(krel_http_rest_closure_t *restc, bool prometheus) {
  krel_http_request_t *request = krel_http_session_request(restc->http_ctx);
  const auto is = [&](const char *name, std::string_view wanted) {
    const char *value = krel_http_request_querystring(request, name);
    return value && wanted == value;
  };
  auto *r = new stats_request_t{restc->http_ctx,        prometheus,       is("format", "tagged"),
                                is("format", "simple"), is("reset", "1"), {}};
  restc->call_closure = r;
  restc->call_closure_free = [](void *closure) { delete static_cast<stats_request_t *>(closure); };
  restc->fastpath = answer;
  velmar_http_go_asynch(nullptr, render_job, r, krel_http_session_connection(restc->http_ctx));
  return 0;
}

int rest_stats(krel_http_rest_closure_t *restc, int, char **) {
  return start(restc, false);
}
int rest_metrics(krel_http_rest_closure_t *restc, int, char **) {
  return start(restc, true);
}

}  // namespace

void velmar_stats_set_text(const char *name, const char *value) {
  stats_set(velmar_stats_get_handle(name, STATS_TYPE_STRING), STATS_TYPE_STRING, value);
}

void velmar_stats_init() {
  velmar_stats_set_text("version", velmar_version());
  velmar_stats_set_text("semver", SEMVER);
  velmar_stats_register_process();
  krelev_name_callback("rest_stats", render_job);
  krel_assert(krel_http_rest_register("GET", "/", "^stats.json$", rest_stats) == 0);
  krel_assert(krel_http_rest_register("GET", "/", "^metrics$", rest_metrics) == 0);
}
