#include "be/raw/rest_raw_rollup.h"

#include <memory>
#include <string>

#include "be/common/query_param.h"
#include "be/raw/raw_mgr.h"
#include "db/raw/rollup/ctx.h"
#include "platform/krel/base/krel_log.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace {

using db::raw::force_rollup_e;

struct raw_rollup_t {
  krel_http_session_t *session;
  bool histogram;
  uint64_t at_s = 0;  // a time in the shard
  int code = REST_OK;
  const char *error = "";

  const char *kind() const { return histogram ? "histogram" : "numeric"; }
  void fail(int with, const char *text) {
    code = with;
    error = text;
  }
};

void force_rollup(raw_rollup_t *rollup) {
  krel_log(krel_notice, "Finding raw %s shard for rollup: %lu\n", rollup->kind(), rollup->at_s);
  db::raw::ctx_c *ctx = rest_raw_mgr_get_ctx(rollup->histogram);
  switch (ctx ? ctx->force_rollup(rollup->at_s) : force_rollup_e::no_shard) {
    case force_rollup_e::submitted:
      krel_log(krel_notice, "Passed checks, initiating forced raw %s rollup\n", rollup->kind());
      break;
    case force_rollup_e::no_shard:
      return rollup->fail(REST_NOT_FOUND, "no matching shard found");
    case force_rollup_e::in_progress:
      return rollup->fail(REST_BUSY, "rollup already in progress");
    case force_rollup_e::refused:
      krel_log(krel_error, "Unable to dispatch raw %s rollup: %s\n", rollup->kind(),
               "the shard is offline or the node is being rebuilt");
      return rollup->fail(REST_SERVER_ERROR, "internal error");
  }
}

// Not on the rollups' own queue: that may be busy for hours.
int rest_raw_rollup_asynch(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *rollup = static_cast<raw_rollup_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) force_rollup(rollup);
  if (mask == KRELEV_ASYNCH_COMPLETE) krel_http_session_resume_after_float(rollup->session);
  return 0;
}

int rest_raw_rollup_complete(krel_http_rest_closure_t *restc, int, char **) {
  const auto *rollup = static_cast<raw_rollup_t *>(restc->call_closure);
  if (rollup->code != REST_OK) {
    rest_req_fail(rollup->session, rollup->code, rollup->error);
    return 0;
  }
  rest_json_header(rollup->session, 200, "OK");
  rest_write_json_simple(rollup->session, "status", "rollup_submitted");
  krel_http_response_end(rollup->session);
  return 0;
}

int rest_raw_rollup(krel_http_rest_closure_t *restc, bool histogram) {
  using namespace velmar_be_common;
  krel_http_session_t *session = restc->http_ctx;
  auto rollup = std::make_unique<raw_rollup_t>(raw_rollup_t{session, histogram});
  const parse_param_c<uint64_t> floor("starting_block_floor", get_timestamp_s_parser());
  switch (floor.try_parse(krel_http_session_request(session), &rollup->at_s)) {
    case param_result_e::ok:
      break;
    case param_result_e::absent:
      rest_req_invalid(session, "starting_block field required");
      return 0;
    default:
      rest_req_invalid(session, "invalid request");
      return 0;
  }
  restc->call_closure = rollup.get();
  restc->call_closure_free = [](void *closure) { delete static_cast<raw_rollup_t *>(closure); };
  restc->fastpath = rest_raw_rollup_complete;
  velmar_http_go_asynch(nullptr, rest_raw_rollup_asynch, rollup.release(),
                        krel_http_session_connection(session));
  return 0;
}

int rest_raw_rollup_numeric(krel_http_rest_closure_t *restc, int, char **) {
  return rest_raw_rollup(restc, false);
}
int rest_raw_rollup_histogram(krel_http_rest_closure_t *restc, int, char **) {
  return rest_raw_rollup(restc, true);
}

}  // namespace

void rest_raw_rollup_init() {
  krelev_name_callback("rest_raw_rollup_asynch", rest_raw_rollup_asynch);
  krel_assert(krel_http_rest_register("GET", "/raw/", "^rollup$", rest_raw_rollup_numeric) == 0);
  krel_assert(krel_http_rest_register("GET", "/histogram_raw/", "^rollup$", rest_raw_rollup_histogram) == 0);
}
