// The layer's own work per request, without sockets and loops, and how a rule is found.
#include <benchmark/benchmark.h>

#include "../../../../../tests/support/http_memory_client.h"

namespace {

int answer(krel_http_rest_closure_t *restc, int, char **) {
  static constexpr char hello[] = "{\"status\":\"ok\",\"node\":\"8f2c1d3e-4b5a-4c6d-8e7f-901a2b3c4d5e\"}";
  krel_http_response_status_set(restc->http_ctx, 200, "OK");
  krel_http_response_header_set(restc->http_ctx, "Content-Type", "application/json");
  krel_http_response_append(restc->http_ctx, hello, sizeof(hello) - 1);
  krel_http_response_end(restc->http_ctx);
  return 0;
}

int swallow(krel_http_rest_closure_t *restc, int, char **) {
  static char buffer[65536];
  int mask = 0;
  ssize_t n;
  while ((n = krel_http_session_req_consume(restc->http_ctx, buffer, sizeof(buffer), &mask)) > 0) {
  }
  if (n < 0) return mask;
  krel_http_response_end(restc->http_ctx);
  return 0;
}

void register_rules() {
  static const bool once = [] {
    for (int i = 0; i < 60; i++)
      krel_http_rest_register("GET", ("/base" + std::to_string(i) + "/").c_str(), "^([^/]+)/(.+)$", answer);
    krel_http_rest_register("GET", "/hello", "^$", answer);
    krel_http_rest_register("PUT", "/raw", "^$", swallow);
    return true;
  }();
  (void)once;
}

void small_get(benchmark::State &state) {
  register_rules();
  http_memory_client_c client;
  const std::string one =
      "GET /hello HTTP/1.1\r\nHost: 127.0.0.1:8112\r\nUser-Agent: bench/1.0\r\nAccept: */*\r\n"
      "Accept-Encoding: gzip, deflate\r\n\r\n";
  std::string requests;
  for (int i = 0; i < state.range(0); i++) requests += one;
  for (auto _ : state) {
    client.feed(requests);
    client.wire.written.clear();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(small_get)->Arg(1)->Arg(16);

void find_rule(benchmark::State &state) {
  register_rules();
  http_match_t match;
  for (auto _ : state)
    benchmark::DoNotOptimize(http_rules_match("GET", "/base37/8f2c1d3e/cpu|ST[host:a]", &match));
}
BENCHMARK(find_rule);

void upload(benchmark::State &state) {
  register_rules();
  http_memory_client_c client;
  const bool chunked = state.range(0) != 0;
  std::string body(1 << 20, 'x'), request = "PUT /raw HTTP/1.1\r\nHost: h\r\n";
  if (chunked) {
    std::string pieces;
    for (size_t at = 0; at < body.size(); at += 16384) pieces += "4000\r\n" + body.substr(at, 16384) + "\r\n";
    request += "Transfer-Encoding: chunked\r\n\r\n" + pieces + "0\r\n\r\n";
  } else {
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
  for (auto _ : state) {
    state.PauseTiming();
    for (size_t at = 0; at < request.size(); at += 65536)
      client.wire.incoming.push_back(request.substr(at, 65536));
    state.ResumeTiming();
    client.feed("");
    client.wire.written.clear();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body.size()));
}
BENCHMARK(upload)->Arg(0)->Arg(1)->ArgName("chunked");

}  // namespace
