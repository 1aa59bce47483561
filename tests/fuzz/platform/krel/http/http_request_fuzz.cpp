// Bytes of a client, in pieces, against a connection with handlers that read bodies in their own ways.
// Whatever comes, memory stays bounded, every request ends and nothing that was refused is served.
#include "../../../../support/http_memory_client.h"

#include <cstdlib>

#include "platform/krel/base/krel_log.h"

namespace {

int answer(krel_http_rest_closure_t *restc, int npats, char **pats) {
  krel_http_session_t *session = restc->http_ctx;
  krel_http_request_t *request = krel_http_session_request(session);
  for (int i = 0; i < npats; i++) krel_http_response_append_str(session, pats[i]);
  if (const char *value = krel_http_request_querystring(request, "a"))
    krel_http_response_append_str(session, value);
  krel_http_request_headers_each(
      request,
      [](const char *name, const char *value, void *closure) {
        if (strpbrk(value, "\r\n") || *name == '\0') abort();
        krel_http_response_appendf(static_cast<krel_http_session_t *>(closure), "%s=%s\n", name, value);
      },
      session);
  krel_http_response_option_set(session, KREL_HTTP_COMPRESS);
  return 0;
}

template <size_t piece>
int upload(krel_http_rest_closure_t *restc, int, char **) {
  char buffer[piece];
  int mask = 0;
  for (;;) {
    const ssize_t n = krel_http_session_req_consume(restc->http_ctx, buffer, sizeof(buffer), &mask);
    if (n > static_cast<ssize_t>(sizeof(buffer))) abort();
    if (n < 0 && errno == EAGAIN) return mask;
    if (n <= 0) break;
    if (piece == 7) return KRELEV_READ | KRELEV_WRITE | KRELEV_EXCEPTION;  // lets the loop turn
  }
  krel_http_response_append_str(restc->http_ctx, "done");
  return 0;
}

void register_rules() {
  krel_log_stream_switch("error", false);
  krel_http_rest_register("GET", "/", "^([^/]*)(?:/(.*))?$", answer);
  krel_http_rest_register("PUT", "/", "^", upload<4096>);
  krel_http_rest_register("POST", "/", "^", upload<1>);
  krel_http_rest_register("MERGE", "/", "^", upload<7>);
}

}  // namespace

// The first byte says how long the pieces are; 0: all at once.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool once = (register_rules(), true);
  (void)once;
  if (size == 0) return 0;
  const size_t piece = data[0] == 0 ? size : data[0];
  const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
  {
    http_memory_client_c client;
    for (size_t at = 0; at < bytes.size() && client.open(); at += piece) {
      client.feed(bytes.substr(at, piece));
      if (client.open() && client.connection().out.size() > 4 * HTTP_HIGH_WATER) abort();
      client.take();
    }
  }
  if (http_in_flight() != 0) abort();
  return 0;
}
