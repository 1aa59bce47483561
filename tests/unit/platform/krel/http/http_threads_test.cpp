// Requests that leave their loop: jobs, coroutines, other loop threads; slow and vanishing clients.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "http_test_rules.h"
#include "http_test_server.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

std::atomic<size_t> most_buffered{0};
std::atomic<int> jobs_ended{0};

void hand_to_job(krel_http_rest_closure_t *restc, std::function<void(krel_http_session_t *)> job) {
  krel_http_session_t *session = restc->http_ctx;
  krel_http_connection_event_float(krel_http_session_connection(session));
  krelev_jobq_run(krelev_jobq_retrieve("work"), [session, job = std::move(job)] {
    EXPECT_FALSE(krelev_in_loop());
    job(session);
  });
}

// The job thinks, the fast path answers on the owner's thread.
int float_and_answer(krel_http_rest_closure_t *restc, int, char **) {
  struct state_t {
    test_upload_t counted;
    pthread_t owner;
  };
  krelev_event_t event = krel_http_connection_event(krel_http_session_connection(restc->http_ctx));
  restc->call_closure = new state_t{{}, krelev_get_owner(event)};
  restc->call_closure_free = [](void *state) { delete static_cast<state_t *>(state); };
  restc->fastpath = [](krel_http_rest_closure_t *again, int, char **pats) {
    EXPECT_TRUE(pthread_equal(static_cast<state_t *>(again->call_closure)->owner, pthread_self()));
    krel_http_response_append_str(again->http_ctx, pats[0]);
    krel_http_response_end(again->http_ctx);
    return 0;
  };
  hand_to_job(restc, [](krel_http_session_t *session) { krel_http_session_resume_after_float(session); });
  return 0;
}

// The job writes all of it by itself and heeds its reader.
int float_and_stream(krel_http_rest_closure_t *restc, int, char **pats) {
  const size_t size = strtoul(pats[0], nullptr, 10);
  hand_to_job(restc, [size](krel_http_session_t *session) {
    const std::string piece(50000, 'j');
    bool alive = true;
    for (size_t left = size; left > 0 && alive;) {
      const size_t n = std::min(left, piece.size());
      alive = krel_http_response_append(session, piece.data(), n) && krel_http_response_flush(session, false);
      most_buffered = std::max(most_buffered.load(), krel_http_response_buffered(session));
      alive = alive && krel_http_response_wait_drained(session, 200000, 60000);
      left -= n;
    }
    if (alive) krel_http_response_end(session);
    EXPECT_EQ(krel_http_response_closed(session), !alive);
    jobs_ended++;
    krel_http_session_resume_after_float(session);
  });
  return 0;
}

int float_and_fail(krel_http_rest_closure_t *restc, int, char **pats) {
  const bool late = pats[0][0] == 'l';
  hand_to_job(restc, [late](krel_http_session_t *session) {
    if (late) {
      krel_http_response_append_str(session, "begun");
      krel_http_response_flush(session, false);
    }
    krel_http_session_fail(session);
  });
  return 0;
}

int coroutine(krel_http_rest_closure_t *restc, int, char **pats) {
  EXPECT_TRUE(krelev_is_aco());
  std::string what = pats[0];
  if (what == "throw") throw std::runtime_error("thrown in a coroutine");
  if (what == "now") {
    krel_http_response_append_str(restc->http_ctx, "at once");
    return 0;
  }
  size_t asked = 0;
  for (int i = 0; i < 3; i++) {
    krelev_aco_simple_asynch_queue_subqueue(
        krelev_jobq_retrieve("work"), 1, [](void *count) { ++*static_cast<size_t *>(count); }, &asked);
  }
  if (what == "late") throw std::runtime_error("thrown in a coroutine that had waited");
  const std::string piece(100000, '~');
  for (int i = 0; i < 100; i++) {
    krel_http_response_append(restc->http_ctx, piece.data(), piece.size());
    if (!krel_http_response_flush(restc->http_ctx, false)) break;
    most_buffered = std::max(most_buffered.load(), krel_http_response_buffered(restc->http_ctx));
  }
  krel_http_response_appendf(restc->http_ctx, "asked %zu", asked);
  return 0;
}

int coroutine_that_floats(krel_http_rest_closure_t *restc, int, char **) {
  restc->fastpath = [](krel_http_rest_closure_t *again, int, char **) {
    krel_http_response_append_str(again->http_ctx, "floated");
    return 0;
  };
  const struct timeval nap = {0, 1};
  krelev_aco_sleep(&nap);
  hand_to_job(restc, [](krel_http_session_t *session) { krel_http_session_resume_after_float(session); });
  return 0;
}

int which_loop(krel_http_rest_closure_t *restc, int, char **) {
  const bool other = pthread_equal(pthread_self(), krelev_choose_owner_pool(krelev_pool("other"), 0));
  krel_http_response_append_str(restc->http_ctx, other ? "other" : "default");
  return 0;
}

// Moves to the second loop of "default", unless it is there.
int move_there(krel_http_rest_closure_t *restc, int, char **) {
  const pthread_t wanted = krelev_choose_owner(1);
  if (!pthread_equal(pthread_self(), wanted)) {
    krel_http_connection_set_owner(krel_http_session_connection(restc->http_ctx), wanted);
    return KRELEV_READ | KRELEV_WRITE | KRELEV_EXCEPTION;
  }
  krel_http_response_append_str(restc->http_ctx, "moved");
  return 0;
}

class http_threads : public testing::Test {
 protected:
  void SetUp() override {
    http_test_register_rules();
    most_buffered = 0;
    jobs_ended = 0;
    krel_http_rest_register("GET", "/float/", "^(\\w+)$", float_and_answer);
    krel_http_rest_register("GET", "/job/", "^(\\d+)$", float_and_stream);
    krel_http_rest_register("GET", "/fail/", "^(\\w+)$", float_and_fail);
    krel_http_rest_register("GET", "/move", "^$", move_there);
    krel_rest_mountpoint_set_aco(krel_http_rest_new_rule("GET", "/aco/", "^(\\w+)$", coroutine), true);
    krel_rest_mountpoint_set_aco(krel_http_rest_new_rule("GET", "/acofloat", "^$", coroutine_that_floats),
                                 true);
  }
  void TearDown() override { EXPECT_EQ(test_upload_t::living, 0); }
};

std::string get(const std::string &target, const std::string &headers = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n";
}

}  // namespace

TEST_F(http_threads, answers_stay_with_their_requests_through_jobs) {
  http_test_server_c server;
  std::vector<std::thread> clients;
  for (int c = 0; c < 6; c++) {
    clients.emplace_back([&server, c] {
      http_test_client_c client(server.port);
      for (int round = 0; round < 20; round++) {
        std::string requests;
        const auto name = [&](int i) {
          return std::to_string(c) + "x" + std::to_string(round) + "x" + std::to_string(i);
        };
        for (int i = 0; i < 10; i++) requests += get(i % 3 == 2 ? "/hello" : "/float/" + name(i));
        client.send(requests);
        for (int i = 0; i < 10; i++)
          ASSERT_THAT(client.response(), EndsWith("\r\n\r\n" + (i % 3 == 2 ? "hello" : name(i))));
      }
    });
  }
  for (auto &client : clients) client.join();
}

TEST_F(http_threads, a_slow_reader_stops_the_job_and_gets_all) {
  http_test_server_c server;
  http_test_client_c client(server.port, 4096);
  const size_t size = 20000000;
  client.send(get("/job/" + std::to_string(size), "Connection: close\r\n"));
  ASSERT_TRUE(eventually([] { return most_buffered.load() > 100000; }));
  const std::string all = client.rest();
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), 'j')), size);
  EXPECT_THAT(all, EndsWith("\r\n0\r\n\r\n"));
  EXPECT_LT(most_buffered.load(), 300000u);
}

TEST_F(http_threads, a_job_notices_that_its_reader_is_gone) {
  http_test_server_c server;
  {
    http_test_client_c client(server.port, 4096);
    client.send(get("/job/500000000"));
    ASSERT_TRUE(eventually([] { return most_buffered.load() > 100000; }));
    const struct linger reset = {1, 0};
    ::setsockopt(client.fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  }
  EXPECT_TRUE(eventually([] { return jobs_ended.load() == 1; }));
  EXPECT_TRUE(eventually([] { return krel_http_requests_in_flight() == 0; }));
}

TEST_F(http_threads, a_job_that_fails_ends_its_own_request_only) {
  http_test_server_c server;
  http_test_client_c client(server.port), neighbour(server.port);
  neighbour.send(get("/float/n"));
  EXPECT_THAT(client.get("/fail/early"), StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(client.get("/hello"), EndsWith("hello"));
  client.send(get("/fail/late"));
  EXPECT_THAT(client.rest(), EndsWith("5\r\nbegun\r\n"));
  EXPECT_THAT(neighbour.response(), EndsWith("\r\n\r\nn"));
}

TEST_F(http_threads, coroutines_wait_for_jobs_and_for_their_readers) {
  http_test_server_c server;
  http_test_client_c client(server.port, 4096);
  EXPECT_THAT(client.get("/aco/now"), EndsWith("at once"));
  EXPECT_THAT(client.get("/aco/throw"), StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(client.get("/aco/late"), StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(client.get("/acofloat"), EndsWith("floated"));
  client.send(get("/aco/stream", "Connection: close\r\n"));
  ASSERT_TRUE(eventually([] { return most_buffered.load() > 0; }));
  const std::string all = client.rest();
  EXPECT_EQ(std::count(all.begin(), all.end(), '~'), 10000000);
  EXPECT_THAT(all, HasSubstr("asked 3"));
  EXPECT_LT(most_buffered.load(), 500000u);
}

TEST_F(http_threads, rules_choose_their_pool_and_handlers_their_thread) {
  http_test_server_c server;
  krel_rest_mountpoint_set_krelev_pool(krel_http_rest_new_rule("GET", "/other", "^$", which_loop),
                                       krelev_pool("other"));
  krel_http_rest_register("GET", "/default", "^$", which_loop);
  for (int i = 0; i < 3; i++) {  // connections begin on either loop
    http_test_client_c client(server.port);
    client.send(get("/other") + get("/move") + get("/default") + get("/other"));
    EXPECT_THAT(client.response(), EndsWith("\r\n\r\nother"));
    EXPECT_THAT(client.response(), EndsWith("\r\n\r\nmoved"));
    EXPECT_THAT(client.response(), EndsWith("\r\n\r\ndefault"));
    EXPECT_THAT(client.response(), EndsWith("\r\n\r\nother"));
  }
}

TEST_F(http_threads, clients_that_stall_are_dropped) {
  http_timeouts_t limits;
  limits.header_ms = limits.idle_ms = limits.body_ms = limits.write_ms = 100;
  http_test_server_c server(limits);
  http_test_client_c mute(server.port), half_header(server.port), half_body(server.port), idle(server.port),
      chunk(server.port), no_reader(server.port, 4096);
  half_header.send("GET /hello HTTP/1.1\r\nHost:");
  half_body.send("PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 10\r\n\r\n01234");
  chunk.send("PUT /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n01");
  no_reader.send(get("/stream/20000000"));
  idle.send(get("/hello"));
  EXPECT_THAT(mute.rest(), StartsWith("HTTP/1.1 408 "));
  EXPECT_THAT(half_header.rest(), StartsWith("HTTP/1.1 408 "));
  EXPECT_THAT(half_body.rest(), StartsWith("HTTP/1.1 408 "));
  EXPECT_THAT(chunk.rest(), StartsWith("HTTP/1.1 408 "));
  EXPECT_THAT(idle.rest(), EndsWith("hello"));
  EXPECT_TRUE(eventually([] { return krel_http_requests_in_flight() == 0; }));
  EXPECT_THAT(no_reader.rest(), Not(EndsWith("\r\n0\r\n\r\n")));
}

TEST_F(http_threads, an_orderly_stop_serves_what_is_under_way) {
  static std::atomic<bool> go;
  go = false;
  krel_http_rest_register("GET", "/wait", "^$", [](krel_http_rest_closure_t *restc, int, char **) {
    hand_to_job(restc, [](krel_http_session_t *session) {
      EXPECT_TRUE(eventually([] { return go.load(); }));
      krel_http_response_append_str(session, "served");
      krel_http_response_end(session);
      krel_http_session_resume_after_float(session);
    });
    return 0;
  });
  http_test_server_c server;
  http_test_client_c busy(server.port);
  busy.send(get("/wait"));
  ASSERT_TRUE(eventually([] { return krel_http_requests_in_flight() == 1; }));
  krel_listener_close_all();
  EXPECT_FALSE(http_test_client_c(server.port).connected());
  EXPECT_EQ(krel_http_requests_in_flight(), 1u);
  go = true;
  const std::string answer = busy.rest();
  EXPECT_THAT(answer, EndsWith("served"));
  EXPECT_THAT(answer, HasSubstr("Connection: close\r\n"));
  EXPECT_EQ(krel_http_requests_in_flight(), 0u);
}
