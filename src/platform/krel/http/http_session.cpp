// Sessions: how a handler is called, floats and comes back.

#include <algorithm>
#include <cstring>
#include <exception>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/http/http_connection.h"

// On the coroutine's stack: tells whether the session is still the coroutine's when the handler returns.
struct http_coroutine_t {
  bool floated = false;
};

namespace {

void append_json(std::string &to, std::string_view text) {
  for (const char c : text) {
    if (c == '"' || c == '\\') to.push_back('\\');
    to.push_back(static_cast<unsigned char>(c) < 0x20 ? ' ' : c);
  }
}

void run_coroutine(void *argument) {
  auto *session = static_cast<krel_http_session_t *>(argument);
  http_coroutine_t mine;
  session->coroutine = &mine;
  const int result = session->call_handler();
  if (mine.floated) return;  // the session is a job's by now
  session->coroutine = nullptr;
  session->in_coroutine = false;
  session->result = result;
  krel_http_connection_t *connection = session->connection;
  if (connection->state != http_state_e::parked) return;  // the starter is waiting
  krelev_post(pthread_self(), [connection] { connection->resume(false); });
}

}  // namespace

void krel_http_session_t::begin(krel_http_connection_t *of) {
  connection = of;
  request.begin(&of->input);
  response.begin();
  restc = {};
  restc.http_ctx = this;
  rule = nullptr;
  counted = hooks_ran = response_hooks_ran = floating = failed = in_coroutine = false;
  coroutine = nullptr;
  result = groups = 0;
}

void krel_http_session_t::end() {
  if (restc.call_closure_free) restc.call_closure_free(restc.call_closure);
  restc = {};
  if (counted) connection->loop->in_flight.fetch_sub(1, std::memory_order_relaxed);
  counted = false;
  request.decoder.reset();
  request.header_block.reset();
  response.body.clear();
}

bool krel_http_session_t::set_groups(const http_match_t &match) {
  size_t room = 0;
  for (int i = 0; i < match.groups; i++) room += match.group[i].size() + 1;
  if (group_text.size() < room || group_text.size() > 4096) group_text.resize(std::max<size_t>(room, 256));
  char *to = group_text.data();
  groups = match.groups;
  for (int i = 0; i < match.groups; i++) {
    const size_t n = http_percent_decode(match.group[i].data(), match.group[i].size(), to, false);
    if (memchr(to, '\0', n)) return false;
    group[i] = to;
    to[n] = '\0';
    to += n + 1;
  }
  return true;
}

int krel_http_session_t::call_handler() {
  try {
    if (!hooks_ran) {
      hooks_ran = true;
      if (http_rules_run_hooks(&restc) != 0) return 0;
    }
    return (restc.fastpath ? restc.fastpath : rule->handler)(&restc, groups, group);
  } catch (const std::exception &e) {
    krel_log(krel_error, "http: the handler of %s threw: %s\n", rule->base.c_str(), e.what());
  } catch (...) {
    krel_log(krel_error, "http: the handler of %s threw\n", rule->base.c_str());
  }
  fail_internal();
  return 0;
}

int krel_http_session_t::call() {
  if (!rule->aco) return call_handler();
  in_coroutine = true;
  result = 0;
  krelev_aco_start(run_coroutine, this);
  if (in_coroutine) connection->park();  // it has yielded
  return result;
}

void krel_http_session_t::answer_error(int code, const char *text) {
  std::string body = "{\"error\": \"";
  append_json(body, text);
  body += "\"}\n";
  response.status = code;
  response.reason.clear();
  response.set_header("Content-Type", "application/json");
  response.body.append(body);
  krel_http_response_flush(this, true);
}

void krel_http_session_t::fail_internal() {
  if (response.header_out) {
    response.broken = !response.ended;
    return;
  }
  response.reset_to_error();
  answer_error(500, "internal error");
}

// ---- the public face

krel_http_request_t *krel_http_session_request(krel_http_session_t *session) {
  return &session->request;
}

krel_http_response_t *krel_http_session_response(krel_http_session_t *session) {
  return &session->response;
}

krel_http_connection_t *krel_http_session_connection(krel_http_session_t *session) {
  return session->connection;
}

krelev_event_t krel_http_connection_event(krel_http_connection_t *connection) {
  return connection->event;
}

krelev_event_t krel_http_connection_event_float(krel_http_connection_t *connection) {
  krel_http_session_t *session = connection->session.get();
  connection->park();
  session->floating = true;
  if (session->coroutine) session->coroutine->floated = true;
  session->coroutine = nullptr;
  session->in_coroutine = false;
  return connection->event;
}

void krel_http_session_resume_after_float(krel_http_session_t *session) {
  krel_http_connection_t *connection = session->connection;
  krelev_post(krelev_get_owner(connection->event), [connection] { connection->resume(true); });
}

void krel_http_session_fail(krel_http_session_t *session) {
  session->failed = true;
  krel_http_session_resume_after_float(session);
}

void krel_http_connection_set_owner(krel_http_connection_t *connection, pthread_t owner) {
  connection->moving = true;
  connection->move_to = owner;
}

uint64_t krel_http_requests_in_flight() {
  return static_cast<uint64_t>(std::max<int64_t>(http_in_flight(), 0));
}
