// http_hello PORT [THREADS]: serves a small JSON text, for measuring the HTTP layer alone.
//   /hello   answered on the loop      /float   answered after a hop to a job queue and back
//   /bulk/N  N bytes, streamed by a job
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/http/krel_http.h"

namespace {

constexpr char hello[] =
    "{\"status\":\"ok\",\"node\":\"8f2c1d3e-4b5a-4c6d-8e7f-901a2b3c4d5e\",\"uptime\":12345}";

int answer_hello(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_response_status_set(restc->http_ctx, 200, "OK");
  krel_http_response_header_set(restc->http_ctx, "Content-Type", "application/json");
  krel_http_response_append(restc->http_ctx, hello, sizeof(hello) - 1);
  krel_http_response_end(restc->http_ctx);
  return 0;
}

int answer_float(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  restc->fastpath = answer_hello;
  krel_http_connection_event_float(krel_http_session_connection(session));
  krelev_jobq_run(krelev_jobq_retrieve("work"), [session] { krel_http_session_resume_after_float(session); });
  return 0;
}

void send_bulk(krel_http_session_t *session, size_t left) {
  const std::string piece(65536, 'x');
  krel_http_response_status_set(session, 200, "OK");
  while (left > 0 && krel_http_response_wait_drained(session, 4 << 20, 60000)) {
    const size_t n = std::min(left, piece.size());
    if (!krel_http_response_append(session, piece.data(), n) || !krel_http_response_flush(session, false))
      break;
    left -= n;
  }
  if (left == 0) krel_http_response_end(session);
  krel_http_session_resume_after_float(session);
}

int answer_bulk(krel_http_rest_closure_t *restc, int, char **pats) {
  krel_http_session_t *session = restc->http_ctx;
  const size_t size = strtoull(pats[0], nullptr, 10);
  krel_http_connection_event_float(krel_http_session_connection(session));
  krelev_jobq_run(krelev_jobq_retrieve("work"), [session, size] { send_bulk(session, size); });
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string port = argc > 1 ? argv[1] : "8112";
  krelev_config("concurrency", argc > 2 ? argv[2] : "2");
  krelev_config("jobq_work", "2,1,2");
  const std::string conf = "<velmar><listeners><listener type=\"http_rest_api\" address=\"127.0.0.1\" port=\"" +
                           port + "\"/></listeners></velmar>";
  if (!krel_conf_load_text(conf, "http_hello.conf") || krelev_init() != 0) return 1;
  krel_http_rest_init();
  krel_capabilities_listener_init();
  krel_http_rest_register("GET", "/hello", "^$", answer_hello);
  krel_http_rest_register("GET", "/float", "^$", answer_float);
  krel_http_rest_register("GET", "/bulk/", "^(\\d+)$", answer_bulk);
  krel_listener_init("velmar");
  krelev_loop();
}
