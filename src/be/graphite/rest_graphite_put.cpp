// POST /graphite/...: lines as the body of a request.

#include "be/graphite/rest_graphite_put.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include "be/graphite/graphite_log.h"
#include "be/graphite/rest_graphite_mgr.h"
#include "be/raw/http_put.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/base/krel_log.h"
#include "rest/rest_result.h"
#include "util/uuid_text.h"

namespace be::graphite {

namespace {

constexpr size_t LONGEST_LINE = 511998;

class rest_common_put_closure_t final : public raw::http_put_c {
 public:
  rest_common_put_closure_t(krel_http_session_t *session, const source_t &source)
      : http_put_c(session, LONGEST_LINE, log_error()), m_source(source) {}

 private:
  bool parse(char *text, size_t length, size_t lines, raw::raw_batch_t *batch) override {
    rest_graphite_mgr_parse_ingestion_data(m_source, &request->counters, &raw::raw_mgr().known, text, length,
                                           lines, batch);
    return true;
  }
  void line_dropped() override { count_dropped_line(); }
  void answer() override;
  void answer_broken() override {
    krel_log(log_error(), "READ ERROR! %d, bailing\n", errno);
    krel_log(log_error(), "READ error on POST data!!\n");
    rest_json_answer(m_session, 400, "READ ERROR", "{ \"error\": \"unable to read POST data\" }");
  }

  const source_t m_source;
};

void rest_common_put_closure_t::answer() {
  std::string error;
  if (request->get_error(&error) == 0)
    return rest_json_answer(m_session, 200, "OK", raw::put_counts_json(request->counters));
  krel_http_response_status_set(m_session, 500, "ERROR");
  krel_http_response_header_set(m_session, "Content-Type", "text/plain");
  krel_http_response_append(m_session, error.data(), error.size());
  krel_http_response_end(m_session);
}

int rest_graphite_put(krel_http_rest_closure_t *restc, int, char **pats) {
  krel_http_session_t *session = restc->http_ctx;
  if (const refusal_t *no = refusal()) {
    rest_json_answer(session, no->status, no->reason, no->body);
    return 0;
  }
  source_t source;
  const char *end = pats[0] + strlen(pats[0]);
  if (std::from_chars(pats[0], end, source.account_id).ec != std::errc() ||
      !uuid_text_parse(pats[1], source.check_uuid.data())) {
    rest_req_invalid(session, "the account id is out of range");
    return 0;
  }
  raw::ingestion_gate_mgr_c::count_start();
  return raw::http_put_c::start(restc, new rest_common_put_closure_t(session, source));
}

}  // namespace

}  // namespace be::graphite

void rest_graphite_put_init() {
  for (const char *expression :
       {"^([0-9]+)\\/([0-9a-fA-F]{4}(?:[0-9a-fA-F]{4}-){4}[0-9a-fA-F]{12})$",
        "^([0-9]+)\\/([0-9a-fA-F]{4}(?:[0-9a-fA-F]{4}-){4}[0-9a-fA-F]{12})\\/([A-Za-z0-9]+)\\/?$"})
    krel_assert(krel_http_rest_register("POST", "/graphite/", expression, be::graphite::rest_graphite_put) ==
                0);
}
