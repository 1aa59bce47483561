#include "rest/rest_result.h"

#include <algorithm>

#include "platform/krel/base/krel_json.h"

namespace {

struct result_t {
  int code;
  const char *text;
  int status;
  const char *reason;
  const char *message;
};

constexpr result_t RESULTS[] = {
    {REST_OK, "Ok", 200, "OK", "ok"},
    {REST_SERVER_ERROR, "Server error", 500, "ERROR", "server error"},
    {REST_NOT_FOUND, "Not found", 404, "NOT FOUND", "metric not found"},
    {REST_NOT_LOCAL, "Not local", 421, "NOT_LOCAL", "not local to this node"},
    {REST_BUSY, "Unable busy", 423, "LOCKED", "busy, unable to process"},
    {REST_MULTI_STATUS, "Multi status", 207, "MULTI_STATUS", "multiple statuses"},
    {REST_BAD_REQUEST, "Bad request", 400, "BAD_REQUEST", "bad request"},
    {REST_REDIRECTED, "Redirected", 200, "REDIRECTED", "redirected to another node"},
    {REST_INVALID_RANGE, "Invalid range", 416, "INVALID_RANGE", "invalid parameter"},
    {REST_NO_CONTENT, "No content", 204, "NO_CONTENT", "no metric data found"},
    {REST_NOT_IMPLEMENTED, "Not implemented", 501, "NOT_IMPLEMENTED", "not implemented"},
    {REST_TOO_MANY_RECORDS, "Too many records", 429, "TOO_MANY_RECORDS", "too many records"},
    {REST_UNDEFINED, "Undefined", 500, "ERROR", "unknown result"},
};
constexpr result_t UNKNOWN = {0, "Unknown", 500, "ERROR", "unknown result"};

const result_t &find(int code) {
  for (const result_t &r : RESULTS)
    if (r.code == code) return r;
  return UNKNOWN;
}

}  // namespace

std::string rest_json_quote(std::string_view text) {
  const krel_json_ptr object(krel_json_object_new_string_len(text.data(), text.size()));
  return krel_json_object_to_json_string(object.get());
}

const char *rest_error_string(int code) {
  return find(code).text;
}

void rest_json_header(krel_http_session_t *session, int status, const char *reason) {
  krel_http_response_status_set(session, status, reason);
  krel_http_response_header_set(session, "Content-Type", "application/json");
  krel_http_response_option_set(session, KREL_HTTP_COMPRESS);
}

const char *rest_common_http_status(krel_http_session_t *session, int code) {
  const result_t &result = find(code);
  if (session) rest_json_header(session, result.status, result.reason);
  return result.message;
}

void rest_json_answer(krel_http_session_t *session, int status, const char *reason, std::string_view body) {
  rest_json_header(session, status, reason);
  krel_http_response_append(session, body.data(), body.size());
  krel_http_response_end(session);
}

void rest_write_json_simple(krel_http_session_t *session, std::string_view key, std::string_view value) {
  const std::string text = "{" + rest_json_quote(key) + ": " + rest_json_quote(value) + "}\n";
  krel_http_response_append(session, text.data(), text.size());
}

void rest_req_fail(krel_http_session_t *session, int code, std::string_view message) {
  rest_common_http_status(session, code);
  rest_write_json_simple(session, "error", message);
  krel_http_response_end(session);
}

void rest_req_error(krel_http_session_t *session, std::string_view message) {
  rest_req_fail(session, REST_SERVER_ERROR, message);
}
void rest_req_invalid(krel_http_session_t *session, std::string_view message) {
  rest_req_fail(session, REST_BAD_REQUEST, message);
}
void rest_req_not_found(krel_http_session_t *session, std::string_view message) {
  rest_req_fail(session, REST_NOT_FOUND, message);
}
void rest_req_bad_range(krel_http_session_t *session, std::string_view message) {
  rest_req_fail(session, REST_INVALID_RANGE, message);
}
void rest_req_not_implemented(krel_http_session_t *session, std::string_view message) {
  rest_req_fail(session, REST_NOT_IMPLEMENTED, message);
}

void write_out_proxy_error_status(int httpcode, krel_http_session_t *session) {
  const std::string text = httpcode == 404 ? "proxy: not found" : httpcode == 200 ? "proxy" : "proxy: error";
  std::string reason = text;
  std::transform(reason.begin(), reason.end(), reason.begin(), [](unsigned char c) { return toupper(c); });
  rest_json_header(session, httpcode == 404 || httpcode == 200 ? httpcode : 500, reason.c_str());
  rest_write_json_simple(session, "error", text);
  krel_http_response_end(session);
}
