#include "http_test_rules.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "platform/krel/http/http_connection.h"

std::atomic<int> test_upload_t::living{0};

namespace {

void answer(krel_http_session_t *session, int code, const std::string &body) {
  krel_http_response_status_set(session, code, nullptr);
  krel_http_response_append(session, body.data(), body.size());
  krel_http_response_end(session);
}

const char *parameter(krel_http_rest_closure_t *restc, const char *name) {
  return krel_http_request_querystring(krel_http_session_request(restc->http_ctx), name);
}

int hello(krel_http_rest_closure_t *restc, int, char **) {
  answer(restc->http_ctx, 200, "hello");
  return 0;
}

int name(krel_http_rest_closure_t *restc, int npats, char **pats) {
  std::string text;
  for (int i = 0; i < npats; i++) text.append(i ? "|" : "").append(pats[i]);
  answer(restc->http_ctx, 200, text);
  return 0;
}

int query(krel_http_rest_closure_t *restc, int, char **) {
  const char *a = parameter(restc, "a");
  answer(restc->http_ctx, 200, a ? "[" + std::string(a) + "]" : "none");
  return 0;
}

int header(krel_http_rest_closure_t *restc, int, char **pats) {
  const char *value = krel_http_request_header(krel_http_session_request(restc->http_ctx), pats[0]);
  answer(restc->http_ctx, 200, value ? value : "none");
  return 0;
}

int echo(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  krel_http_request_t *request = krel_http_session_request(session);
  if (parameter(restc, "refuse")) {
    answer(session, 413, "refused");
    return 0;
  }
  if (!restc->call_closure) {
    restc->call_closure = new test_upload_t;
    restc->call_closure_free = [](void *upload) { delete static_cast<test_upload_t *>(upload); };
  }
  auto *upload = static_cast<test_upload_t *>(restc->call_closure);
  const char *piece = parameter(restc, "piece");
  std::vector<char> buffer(piece ? static_cast<size_t>(atoi(piece)) : 4096);
  int mask = 0;
  for (;;) {
    const ssize_t n = krel_http_session_req_consume(session, buffer.data(), buffer.size(), &mask);
    if (n > 0) {
      upload->body.append(buffer.data(), static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EAGAIN) return mask;
    if (n < 0 && errno == EPIPE) return 0;
    if (n < 0) {
      answer(session, 400, "broken body");
      return 0;
    }
    break;
  }
  if (const char *options = parameter(restc, "options")) krel_http_response_option_set(session, atoi(options));
  if (!krel_http_request_payload_complete(request)) throw std::logic_error("the body is not complete");
  const std::string method(krel_http_request_method(request));
  answer(session, 200, method + " " + std::to_string(upload->body.size()) + " " + upload->body);
  return 0;
}

int stream(krel_http_rest_closure_t *restc, int, char **pats) {
  krel_http_session_t *session = restc->http_ctx;
  const std::string body(strtoul(pats[0], nullptr, 10), 's');
  krel_http_response_option_set(session, KREL_HTTP_CHUNKED);
  for (size_t at = 0; at < body.size(); at += 1000) {
    krel_http_response_append(session, body.data() + at, std::min<size_t>(1000, body.size() - at));
    krel_http_response_flush(session, false);
  }
  krel_http_response_end(session);
  return 0;
}

int throws(krel_http_rest_closure_t *, int, char **) {
  throw std::runtime_error("thrown by a handler");
}

int throws_late(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_response_append_str(restc->http_ctx, "begun");
  krel_http_response_flush(restc->http_ctx, false);
  throw std::runtime_error("thrown by a handler");
}

int silent(krel_http_rest_closure_t *, int, char **) {
  return 0;
}

}  // namespace

void http_test_register_rules() {
  http_rules_clear();
  http_connections_wind_up(false);  // an earlier test has stopped its server
  krel_http_rest_register("GET", "/hello", "^$", hello);
  krel_http_rest_register("GET", "/name/", "^(.*)/(\\d*)$", name);
  krel_http_rest_register("GET", "/query", "^$", query);
  krel_http_rest_register("GET", "/header/", "^(.+)$", header);
  for (const char *method : {"PUT", "POST", "MERGE"}) krel_http_rest_register(method, "/echo", "^$", echo);
  krel_http_rest_register("GET", "/stream/", "^(\\d+)$", stream);
  krel_http_rest_register("GET", "/throw", "^$", throws);
  krel_http_rest_register("GET", "/throw_late", "^$", throws_late);
  krel_http_rest_register("GET", "/silent", "^$", silent);
}
