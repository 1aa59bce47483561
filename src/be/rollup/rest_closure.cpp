#include "be/rollup/rest_closure.h"

#include "rest/rest_result.h"

namespace velmar_be_rollup {

namespace {

constexpr const char *NO_SUCH_ROLLUP =
    R"({"error":"no rollup data available or period is not a multiple of an available rollup"})";

}  // namespace

rest_closure_c::rest_closure_c(krel_http_session_t *session, const parsed_params_c &params,
                               metric_locator_sp locator, data_type_e data_type)
    : m_session(session), m_params(params), m_data_type(data_type) {
  m_search_key.m_metric_locator = std::move(locator);
  m_search_key.m_start = params.m_start;
  m_search_key.m_end = params.m_end;
  m_search_key.m_rollup_span = params.m_rollup_span;
  m_search_key.m_can_squash = params.m_can_squash;
  m_search_key.m_is_valid = true;
}

void rest_closure_c::fail(db::kv::code_e code) {
  m_no_such_rollup = code == db::kv::code_e::NO_SUCH_ROLLUP;
  m_error = db::kv::ranged_error_text(code);
}

void rest_closure_c::set_epoch(uint64_t ms) {
  m_have_bits |= HAVE_EPOCH;
  m_epoch = ms;
}

void rest_closure_c::set_apocalypse(uint64_t ms) {
  m_have_bits |= HAVE_APOCALYPSE;
  m_apocalypse = ms;
}

void rest_closure_c::start_answer(const char *content_type) {
  krel_http_response_status_set(m_session, 200, "OK");
  krel_http_response_header_set(m_session, "Content-Type", content_type);
  if (m_have_bits & HAVE_EPOCH)
    krel_http_response_header_set(m_session, "X-NNT-Original-Epoch-Ms", std::to_string(m_epoch).c_str());
  if (m_have_bits & HAVE_APOCALYPSE)
    krel_http_response_header_set(m_session, "X-NNT-Original-Apocalypse-Ms",
                                  std::to_string(m_apocalypse).c_str());
}

void rest_closure_c::write_out_response() {
  if (m_no_such_rollup)
    rest_json_answer(m_session, 400, "Bad Request", NO_SUCH_ROLLUP);
  else if (!m_error.empty())
    rest_req_error(m_session, m_error);
  else
    krel_http_response_end(m_session);
}

}  // namespace velmar_be_rollup
