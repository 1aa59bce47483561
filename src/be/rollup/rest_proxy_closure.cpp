#include "be/rollup/rest_proxy_closure.h"

#include <fmt/format.h>

#include "be/common/proxied_read.h"
#include "libvelmar/util/tolv_proxy_buffer.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace velmar_be_rollup {

namespace {

constexpr size_t ERROR_BODY_MAX = 65536;
constexpr uint64_t MS_MAX = UINT64_MAX / 1000;

int32_t timeout_ms = 0;

std::string accept_of(krel_http_session_t *session) {
  const char *accept = krel_http_request_header(krel_http_session_request(session), "accept");
  return accept ? accept : JSON_TYPE;
}

const char *reason_of(int64_t status) {
  return status == 400 ? "Bad Request" : status == 404 ? "NOT FOUND" : "ERROR";
}

}  // namespace

void rest_proxy_set_timeout(int32_t ms) {
  timeout_ms = ms;
}
int32_t rest_proxy_get_timeout() {
  return timeout_ms;
}

rest_proxy_closure_c::rest_proxy_closure_c(krel_http_session_t *session, const parsed_params_c &params,
                                           metric_locator_sp locator, data_type_e data_type,
                                           const host_config *host)
    : rest_closure_c(session, params, std::move(locator), data_type),
      m_host(host),
      m_query(krel_http_request_orig_querystring(krel_http_session_request(session))),
      m_accept(accept_of(session)) {}

void rest_proxy_closure_c::work() {
  fetch();
}

void rest_proxy_closure_c::take_header(std::string_view name, std::string_view value) {
  uint64_t number = 0;
  if (name == "content-type")
    m_content_type = value;
  else if (name == "x-nnt-original-epoch-ms" && krel_parse_uint64(value, &number))
    set_epoch(number);
  else if (name == "x-nnt-original-apocalypse-ms" && krel_parse_uint64(value, &number))
    set_apocalypse(number);
  else if (name == "x-nnt-original-epoch" && krel_parse_uint64(value, &number) && number < MS_MAX)
    set_epoch(number * 1000);
  else if (name == "x-nnt-original-apocalypse" && krel_parse_uint64(value, &number) && number < MS_MAX)
    set_apocalypse(number * 1000);
}

void rest_proxy_closure_c::fetch() {
  const velmar_metric_locator_t *locator = m_search_key.m_metric_locator.get();
  peer_request_t request = velmar_be_common::make_proxied_read(m_host, "rollup", locator, m_query);
  request.headers.push_back("Accept: " + m_accept);
  request.timeout_ms = timeout_ms;
  krel_log(krel_debug, "proxy for nnt metric %s: %s\n", velmar_metric_locator_get_name_with_tags(locator),
           request.url.c_str());
  tolv_proxy_buffer_t answer;
  answer.keep_error_body(ERROR_BODY_MAX);
  const bool ok =
      answer.perform("rest_get_data", std::move(request),
                     [this](std::string_view name, std::string_view value) { take_header(name, value); });
  const std::string &error = answer.get_error_body();
  if (!ok && error.empty()) return fail("unknown error");
  start_answer(m_content_type.empty() ? JSON_TYPE : m_content_type.c_str());
  krel_http_response_option_set(m_session, KREL_HTTP_COMPRESS);
  if (ok) {
    answer.krel_http_append_mmap_from_fd(m_session);
    return;
  }
  krel_http_response_status_set(m_session, static_cast<int>(answer.get_httpcode()),
                                reason_of(answer.get_httpcode()));
  krel_http_response_append(m_session, error.data(), error.size());
}

}  // namespace velmar_be_rollup
