// MERGE /merge/metric: a peer hands over samples and names of metrics, when owners change or a node is rebuilt.

#include "be/raw/rest_raw_merge.h"

#include <fmt/format.h>

#include "be/raw/http_put.h"
#include "be/raw/raw_merge_parse.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace be::raw {

namespace {

constexpr int64_t LIFETIME_MS = 86400000;  // a peer that hands over much waits for it

krelev_jobq_t *merge_jobq = nullptr;

class rest_metric_merge_payload_c final : public http_put_c {
 public:
  explicit rest_metric_merge_payload_c(krel_http_session_t *session)
      : http_put_c(session, HTTP_PUT_LONGEST_LINE, krel_error) {
    request->set_stale_time_out(rest_x_velmar_timeout(session).value_or(LIFETIME_MS));
  }

 private:
  krelev_jobq_t *parse_jobq() const override { return merge_jobq; }
  bool parse(char *text, size_t length, size_t lines, raw_batch_t *batch) override {
    std::vector<metric_locator_sp> named;
    const bool good =
        rest_raw_mgr_reconstitute_metrics_parse(request, &raw_mgr().known, text, length, lines, batch, &named);
    raw_mgr_write_named_metrics(request, named);
    return good;
  }
  void answer() override {
    std::string error;
    if (request->get_error(&error)) {
      krel_log(krel_error, "a merge of metrics failed: %s\n", error.c_str());
      return rest_req_error(m_session, "internal error");
    }
    // what belongs to others was not stored
    const uint32_t errors = request->counters.errors + request->counters.noti;
    rest_json_answer(m_session, 200, "VELMAR", fmt::format("{{ \"errors\": {} }}", errors));
  }
  void answer_broken() override { rest_req_error(m_session, "can not receive completed metric payload"); }
};

int rest_metric_merge(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  if (!http_validate_target_topo(session)) {
    rest_req_error(session, "target topology mismatch");
    return 0;
  }
  if (!raw_mgr().numeric_writer) {
    rest_req_error(session, "not configured to store raw numeric data");
    return 0;
  }
  return http_put_c::start(restc, new rest_metric_merge_payload_c(session));
}

}  // namespace

}  // namespace be::raw

void rest_raw_merge_init() {
  using namespace be::raw;
  merge_jobq = krelev_jobq_retrieve("velmar_rest_metric_merge");
  krel_assert(merge_jobq);
  krel_assert(krel_http_rest_register("MERGE", "/merge/", "^metric$", rest_metric_merge) == 0);
}
