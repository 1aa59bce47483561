// The protocol as bytes in and bytes out, without sockets.
#include "platform/krel/http/http_connection.h"

#include <gmock/gmock.h>

#include "http_test_rules.h"
#include "support/http_memory_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class http_connection : public testing::Test {
 protected:
  void SetUp() override { http_test_register_rules(); }
  void TearDown() override {
    EXPECT_EQ(test_upload_t::living, 0);
    EXPECT_EQ(http_in_flight(), 0);
  }
};

// Without the Date line, whose value no test knows.
std::string dateless(std::string text) {
  for (size_t at; (at = text.find("Date: ")) != std::string::npos;)
    text.erase(at, text.find('\n', at) + 1 - at);
  return text;
}

std::string exchange(std::string_view bytes) {
  http_memory_client_c client;
  client.feed(bytes);
  return dateless(client.take());
}

std::string get(const std::string &target, const std::string &headers = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n";
}

// A literal with the zero bytes inside it.
template <size_t size>
std::string whole(const char (&literal)[size]) {
  return std::string(literal, size - 1);
}

std::string body_of(const std::string &response) {
  const size_t at = response.find("\r\n\r\n");
  return at == std::string::npos ? "no end of header" : response.substr(at + 4);
}

std::string unchunked(const std::string &body) {
  std::string out;
  for (size_t at = 0;;) {
    const size_t end = body.find("\r\n", at);
    if (end == std::string::npos) return "broken";
    const size_t n = strtoul(body.substr(at, end - at).c_str(), nullptr, 16);
    if (n == 0) return body.substr(end) == "\r\n\r\n" ? out : "broken";
    out += body.substr(end + 2, n);
    at = end + 2 + n;
    if (body.substr(at, 2) != "\r\n") return "broken";
    at += 2;
  }
}

}  // namespace

TEST_F(http_connection, a_request_is_answered_and_the_connection_stays) {
  http_memory_client_c client;
  for (int i = 0; i < 3; i++) {
    client.feed(get("/hello"));
    EXPECT_EQ(dateless(client.take()), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  }
  EXPECT_TRUE(client.open());
  EXPECT_EQ(client.mask, KRELEV_READ);
}

TEST_F(http_connection, who_closes_and_when) {
  struct case_t {
    const char *request;
    bool closes;
    const char *says;
  } cases[] = {
      {"GET /hello HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", true, "Connection: close"},
      {"GET /hello HTTP/1.0\r\n\r\n", true, "Connection: close"},
      {"GET /hello HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", false, "Connection: keep-alive"},
      {"GET /nowhere HTTP/1.1\r\nHost: h\r\n\r\n", false, "404"},
      // A body that was refused before its sender was told to go on never comes.
      {"PUT /echo?refuse=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nExpect: 100-continue\r\n\r\n", true,
       "close"},
      {"PUT /echo?refuse=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 5000000\r\n\r\n", true, "close"},
  };
  for (const case_t &c : cases) {
    http_memory_client_c client;
    client.feed(c.request);
    EXPECT_THAT(client.take(), HasSubstr(c.says)) << c.request;
    EXPECT_EQ(!client.open() || client.wire.write_ended, c.closes) << c.request;
  }
}

TEST_F(http_connection, every_split_of_a_pipeline_gives_the_same_answers) {
  const std::string requests = "\r\n" + get("/name/a%2Fb%20c/7", "X-One: 1\r\nx-two:2 \r\n") +
                               "PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n"
                               "4\r\nwire\r\n3;ext=1\r\n-up\r\n0\r\nTrailer: t\r\n\r\n" +
                               "POST /echo?piece=2 HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\nworld" +
                               "HEAD /hello HTTP/1.1\r\nHost: h\r\n\r\n" +
                               get("/hello", "Connection: close\r\n");
  const std::string expected =
      "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\na/b c|7"
      "HTTP/1.1 200 OK\r\nContent-Length: 13\r\n\r\nPUT 7 wire-up"
      "HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\nPOST 5 world"
      "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"
      "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello";
  EXPECT_EQ(exchange(requests), expected);
  for (size_t at = 1; at < requests.size(); at++) {
    http_memory_client_c client;
    client.feed(std::string_view(requests).substr(0, at));
    client.feed(std::string_view(requests).substr(at));
    ASSERT_EQ(dateless(client.take()), expected) << "split at " << at;
  }
  http_memory_client_c client;
  for (const char byte : requests) client.feed({&byte, 1});
  EXPECT_EQ(dateless(client.take()), expected);
}

TEST_F(http_connection, what_two_readers_could_see_differently_is_refused) {
  const std::string chunked_end = "\r\n0\r\n\r\n";
  struct case_t {
    std::string request;
    int code;
  } cases[] = {
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n" + chunked_end,
       400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n" + chunked_end,
       400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\nhello", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\nhello", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: +5\r\n\r\nhello", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5, 5\r\n\r\nhello", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: -1\r\n\r\n", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 99999999999999999999\r\n\r\n", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 18446744073709551615\r\n\r\n", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: gzip, chunked\r\n" + chunked_end, 501},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n" +
           chunked_end,
       400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: identity\r\n" + chunked_end, 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding : chunked\r\n" + chunked_end, 400},
      {"PUT /echo HTTP/1.0\r\nTransfer-Encoding: chunked\r\n" + chunked_end, 400},
      {"GET /hello HTTP/1.1\r\nHost: h\r\nX-Fold: a\r\n b\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\nHost: h\r\nX-Fold:\r\n b\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\nHost: h\r\nX-Fold:\r\n \r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\n Host: h\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\nHost: h\n\n", 400},
      {"GET /hello HTTP/1.1\r\nHost: h\r\nX: a\rb\r\n\r\n", 400},
      {whole("GET /hello HTTP/1.1\r\nHost: h\r\nX: a\0b\r\n\r\n"), 400},
      {whole("GET /he\0llo HTTP/1.1\r\nHost: h\r\n\r\n"), 400},
      {whole("GET /hello HTTP/1.1\r\nHost: h\r\nX\0: a\r\n\r\n"), 400},
      {"GET /hello HTTP/1.1\r\nHost: h\r\nX: a\x01\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\n: a\r\nHost: h\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\n\r\n", 400},
      {"GET /hello HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400},
      {"GET /hello HTTP/2.0\r\nHost: h\r\n\r\n", 505},
      {"GET /hello RTSP/1.1\r\nHost: h\r\n\r\n", 400},
      {"GET /hello\r\n\r\n", 400},
      {"BREW /pot HTTP/1.1\r\nHost: h\r\n\r\n", 400},
      {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 400},
      {"GET /name/%00/1 HTTP/1.1\r\nHost: h\r\n\r\n", 400},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nContent-Encoding: br\r\n\r\nx", 415},
      {"PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nExpect: tea\r\n\r\nx", 417},
      {"\x16\x03\x01\x02garbage of another protocol\r\n\r\n", 400},
  };
  for (const case_t &c : cases) {
    http_memory_client_c client;
    client.feed(c.request + get("/hello"));  // which must not be taken for a request
    const std::string answer = client.take();
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + std::to_string(c.code))) << c.request;
    EXPECT_THAT(answer, HasSubstr("Connection: close\r\n")) << c.request;
    EXPECT_THAT(answer, HasSubstr("{\"error\": \"")) << c.request;
    EXPECT_THAT(answer, Not(HasSubstr("hello"))) << c.request;
  }
}

TEST_F(http_connection, broken_chunks_end_the_connection_behind_the_handlers_answer) {
  for (const char *body :
       {"zz\r\n", "5\r\nhelloXX", "ffffffffffffffffff\r\n", "4\nwire\r\n", "-4\r\nwire\r\n"}) {
    http_memory_client_c client;
    client.feed(std::string("PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n") + body +
                get("/hello"));
    const std::string answer = client.take();
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 400 ")) << body;
    EXPECT_THAT(answer, HasSubstr("Connection: close\r\n")) << body;
    EXPECT_THAT(answer, EndsWith("broken body")) << body;
  }
}

TEST_F(http_connection, a_header_has_64_KiB) {
  const size_t fixed = get("/hello", "X: \r\n").size();
  const std::string fits(HTTP_MAX_HEADER - fixed, 'x');
  EXPECT_THAT(exchange(get("/hello", "X: " + fits + "\r\n")), EndsWith("hello"));
  EXPECT_THAT(exchange(get("/hello", "X: " + fits + "x\r\n")), StartsWith("HTTP/1.1 431 "));
  std::string many;
  for (int i = 0; i < 600; i++) many += "a: b\r\n";
  EXPECT_THAT(exchange(get("/hello", many)), StartsWith("HTTP/1.1 431 "));

  // One that never ends is refused as soon as that is clear, however it comes.
  http_memory_client_c client;
  client.feed("GET /hello HTTP/1.1\r\nHost: h\r\nX: ");
  size_t sent = 0;
  for (; sent < 16 * HTTP_MAX_HEADER && client.take().empty(); sent += 1000)
    client.feed(std::string(1000, 'x'));
  EXPECT_LT(sent, HTTP_MAX_HEADER + 20000);
}

TEST_F(http_connection, a_header_that_fills_its_block_leaves_room_for_the_body) {
  const std::string big(16000, 'x');
  std::string body(100000, 'b');
  for (size_t i = 0; i < body.size(); i++) body[i] = static_cast<char>('a' + i % 26);
  http_memory_client_c client;
  client.feed("PUT /echo?piece=777 HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\nX: " + big +
              "\r\n\r\n");
  for (size_t at = 0; at < body.size(); at += 10000) client.feed("2710\r\n" + body.substr(at, 10000) + "\r\n");
  client.feed("0\r\n\r\n" + get("/header/host"));
  const std::string answer = client.take();
  EXPECT_THAT(answer, HasSubstr("PUT 100000 " + body));
  EXPECT_THAT(answer, EndsWith("\r\n\r\nh"));
}

TEST_F(http_connection, the_client_is_told_to_go_on_only_when_the_body_is_wanted) {
  const std::string header =
      "PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\nExpect: 100-Continue\r\n\r\n";
  http_memory_client_c waits;
  waits.feed(header);
  EXPECT_EQ(waits.take(), "HTTP/1.1 100 Continue\r\n\r\n");
  waits.feed("hello");
  EXPECT_THAT(waits.take(), EndsWith("PUT 5 hello"));
  EXPECT_TRUE(waits.open());

  http_memory_client_c eager;
  eager.feed(header + "hello");
  EXPECT_THAT(eager.take(), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(http_connection, head_is_get_without_the_body) {
  EXPECT_EQ(exchange("HEAD /hello HTTP/1.1\r\nHost: h\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
  EXPECT_EQ(exchange("HEAD /stream/5000 HTTP/1.1\r\nHost: h\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_THAT(body_of(exchange("HEAD /nowhere HTTP/1.1\r\nHost: h\r\n\r\n")), "");
}

TEST_F(http_connection, streams_are_chunked_or_end_with_an_old_clients_connection) {
  EXPECT_EQ(unchunked(body_of(exchange(get("/stream/2500")))), std::string(2500, 's'));
  EXPECT_EQ(exchange("GET /stream/2500 HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + std::string(2500, 's'));
}

TEST_F(http_connection, unread_short_bodies_are_read_past) {
  http_memory_client_c client;
  client.feed("PUT /echo?refuse=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 10\r\n\r\n01234");
  EXPECT_THAT(client.take(), EndsWith("refused"));
  client.feed("56789" + get("/hello"));
  EXPECT_THAT(client.take(), EndsWith("hello"));
  client.feed("POST /nowhere HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n" +
              get("/hello"));
  EXPECT_THAT(client.take(), EndsWith("hello"));

  // Chunked bodies tell no length: past a bound the connection ends instead.
  client.feed("PUT /echo?refuse=1 HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 200 && !client.wire.write_ended; i++)
    client.feed("400\r\n" + std::string(1024, 'x') + "\r\n");
  EXPECT_TRUE(client.wire.write_ended);
}

TEST_F(http_connection, an_unread_flood_is_not_followed_for_ever) {
  http_memory_client_c client;
  client.feed("PUT /echo?refuse=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000000\r\n\r\n");
  EXPECT_THAT(client.take(), StartsWith("HTTP/1.1 413"));
  for (int i = 0; i < 1000 && client.open(); i++) client.feed(std::string(65536, 'x'));
  EXPECT_FALSE(client.open());
}

TEST_F(http_connection, a_client_that_goes_away_ends_its_request) {
  {
    http_memory_client_c client;
    client.feed("PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 10\r\n\r\n01234");
    EXPECT_EQ(test_upload_t::living, 1);
    client.wire.ended = true;
    client.turn();
    EXPECT_THAT(client.take(), StartsWith("HTTP/1.1 400 "));
    EXPECT_FALSE(client.open());
  }
  http_memory_client_c client;
  client.feed("PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n01");
  EXPECT_EQ(http_in_flight(), 1);
}

TEST_F(http_connection, a_handler_that_fails_harms_its_own_request_only) {
  http_memory_client_c client;
  client.feed(get("/throw") + get("/silent") + get("/hello"));
  const std::string answers = dateless(client.take());
  const std::string failed =
      "HTTP/1.1 500 Internal Server Error\r\nContent-Type: application/json\r\nContent-Length: 28\r\n\r\n"
      "{\"error\": \"internal error\"}\n";
  EXPECT_EQ(answers, failed + failed + "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  client.feed(get("/throw_late") + get("/hello"));
  EXPECT_FALSE(client.open());
  EXPECT_THAT(client.take(), EndsWith("begun\r\n"));  // and no last chunk
}

TEST_F(http_connection, a_slow_reader_stops_the_next_request) {
  http_memory_client_c client;
  client.wire.takes = 0;
  std::string requests;
  for (int i = 0; i < 100; i++) requests += get("/stream/10000");
  client.feed(requests);
  EXPECT_EQ(client.mask, KRELEV_WRITE);  // reading on would fill memory
  EXPECT_LT(client.connection().out.size(), 100000u);
  EXPECT_GT(http_in_flight(), 0);  // a stop has to wait for the answers that are not sent
  client.wire.takes = ~size_t{0};
  client.turn();
  EXPECT_EQ(http_in_flight(), 0);
  const std::string answers = client.take();
  size_t count = 0;
  for (size_t at = 0; (at = answers.find("HTTP/1.1 200", at)) != std::string::npos; at++) count++;
  EXPECT_EQ(count, 100u);
}

TEST_F(http_connection, targets_queries_and_headers) {
  struct case_t {
    std::string target, headers, body;
  } cases[] = {
      {"/name/x%25/1", "", "x%|1"},
      {"/name/100%/", "", "100%|"},
      {"/name/%zz%4/1", "", "%zz%4|1"},
      {"/name/%252F/1", "", "%2F|1"},
      {"/name/a+b|ST[c:d]/1", "", "a+b|ST[c:d]|1"},
      {"http://other:80/name/abs/1?x", "", "abs|1"},
      {"/query?a=1&a=2", "", "[1]"},
      {"/query?b=1&a", "", "[]"},
      {"/query?&&=x&a=b%26c+d%20e", "", "[b&c d e]"},
      {"/query?%61=1", "", "[1]"},
      {"/query?aa=1", "", "none"},
      {"/query", "", "none"},
      {"/query?", "", "none"},
      {"/query?a=%", "", "[%]"},
      {"/header/x-a", "X-A:  v \t\r\n", "v"},
      {"/header/x-a", "x-a:\r\n", ""},
      {"/header/x-a", "x-a: \t\r\nb: 2\r\n", ""},
      {"/header/x-a", "X-a: 1\r\nb: 2\r\nx-A: 3\r\n", "1, 3"},
      {"/header/x-b", "X-a: 1\r\n", "none"},
  };
  for (const case_t &c : cases) EXPECT_EQ(body_of(exchange(get(c.target, c.headers))), c.body) << c.target;
}

TEST_F(http_connection, response_headers_replace_and_cannot_split_the_response) {
  static bool split = true;
  krel_http_rest_register("GET", "/set", "^$", [](krel_http_rest_closure_t *restc, int, char **) {
    krel_http_session_t *s = restc->http_ctx;
    krel_http_response_header_set(s, "X-A", "1");
    krel_http_response_header_set(s, "X-B", "2");
    krel_http_response_header_set(s, "x-a", "3");
    split = krel_http_response_header_set(s, "X-C", "v\r\nX-Evil: 1") ||
            krel_http_response_header_set(s, "X-D: 1\r\nX-Evil", "1");
    krel_http_response_status_set(s, 207, "MULTI\r\nX-Evil: 1");
    krel_http_response_appendf(s, "%s-%d", "text", 7);
    krel_http_response_end(s);
    return krel_http_response_header_set(s, "X-Late", "1") ? 1 : 0;
  });
  EXPECT_EQ(exchange(get("/set")),
            "HTTP/1.1 207 MULTIX-Evil: 1\r\nX-B: 2\r\nx-a: 3\r\nContent-Length: 6\r\n\r\ntext-7");
  EXPECT_FALSE(split);
}

TEST_F(http_connection, a_declared_length_must_hold) {
  static const char *text;
  krel_http_rest_register("GET", "/declared", "^$", [](krel_http_rest_closure_t *restc, int, char **) {
    krel_http_response_header_set(restc->http_ctx, "Content-Length", "5");
    krel_http_response_flush(restc->http_ctx, false);
    krel_http_response_append_str(restc->http_ctx, text);
    krel_http_response_end(restc->http_ctx);
    return 0;
  });
  text = "12345";
  EXPECT_EQ(exchange(get("/declared")), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n12345");
  for (const char *wrong : {"1234", "123456"}) {
    text = wrong;
    http_memory_client_c client;
    client.feed(get("/declared"));
    EXPECT_FALSE(client.open()) << wrong;
    EXPECT_LE(body_of(client.take()).size(), 5u);
  }
}

TEST_F(http_connection, hooks_see_every_request_and_every_response) {
  static bool refuse = false;
  krel_rest_get_handler_hook_register("test", [](krel_http_rest_closure_t *restc) {
    if (!refuse) return 0;
    krel_http_response_status_set(restc->http_ctx, 403, "NO");
    krel_http_response_end(restc->http_ctx);
    return 1;
  });
  http_response_starting_hook_register(
      "test", [](krel_http_session_t *session) { krel_http_response_header_set(session, "X-Topo-0", "abc"); });
  for (const char *request :
       {"GET /hello HTTP/1.1\r\nHost: h\r\n\r\n", "GET /nowhere HTTP/1.1\r\nHost: h\r\n\r\n", "garbage\r\n\r\n",
        "GET /stream/10 HTTP/1.1\r\nHost: h\r\n\r\n"})
    EXPECT_THAT(exchange(request), HasSubstr("X-Topo-0: abc\r\n")) << request;
  refuse = true;
  EXPECT_EQ(exchange(get("/hello")), "HTTP/1.1 403 NO\r\nX-Topo-0: abc\r\nContent-Length: 0\r\n\r\n");
}
