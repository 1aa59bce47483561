#pragma once
// How handlers answer: result codes, their HTTP statuses, and the JSON forms of errors.
// All calls run where the session is owned: on its loop thread, or on its job while it floats.

#include <string_view>

#include "platform/krel/http/krel_http.h"

enum rest_result_e : int {
  REST_OK = 0,
  REST_SERVER_ERROR = -1,
  REST_NOT_FOUND = -2,
  REST_NOT_LOCAL = -3,
  REST_BUSY = -4,
  REST_MULTI_STATUS = -5,
  REST_BAD_REQUEST = -6,
  REST_REDIRECTED = -7,
  REST_INVALID_RANGE = -8,
  REST_NO_CONTENT = -9,
  REST_NOT_IMPLEMENTED = -10,
  REST_TOO_MANY_RECORDS = -11,
  REST_UNDEFINED = 1,
};

const char *rest_error_string(int code);
// Sets status, content type and compression of the code and returns its message; with no session it only
// returns the message.
const char *rest_common_http_status(krel_http_session_t *session, int code);
// Status, "application/json" and compression (the length-less form where compression is refused).
void rest_json_header(krel_http_session_t *session, int status, const char *reason);
// The same and a whole body; ends the response.
void rest_json_answer(krel_http_session_t *session, int status, const char *reason, std::string_view body);

// Each ends the response with {"error": message} and a newline.
void rest_req_error(krel_http_session_t *session, std::string_view message);            // 500
void rest_req_invalid(krel_http_session_t *session, std::string_view message);          // 400
void rest_req_not_found(krel_http_session_t *session, std::string_view message);        // 404
void rest_req_bad_range(krel_http_session_t *session, std::string_view message);        // 416
void rest_req_not_implemented(krel_http_session_t *session, std::string_view message);  // 501
void rest_req_fail(krel_http_session_t *session, int code, std::string_view message);   // the code's status
// Appends {"key": "value"} and a newline.
void rest_write_json_simple(krel_http_session_t *session, std::string_view key, std::string_view value);
// Answers for a peer that failed: 500, 404 or 200 with its text.
void write_out_proxy_error_status(int httpcode, krel_http_session_t *session);
// A JSON string with its quotes.
std::string rest_json_quote(std::string_view text);
