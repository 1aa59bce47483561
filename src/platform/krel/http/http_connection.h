#pragma once
// A connection and the request at hand: a state machine that the loop's events drive.
//
//   header -> handler <-> parked -> response -> (discard) -> header ...
//                                            -> closing -> lingering -> gone
//
// parked: the session belongs to a job, or to a coroutine of the same thread, until it is resumed; the
// connection's own thread touches nothing of it meanwhile. Its event leaves the loop only if it fires:
// most clients wait for their answer, and then parking costs no system call.

#include <pthread.h>

#include <memory>

#include "platform/krel/http/http_input.h"
#include "platform/krel/http/http_loop.h"
#include "platform/krel/http/http_request.h"
#include "platform/krel/http/http_response.h"
#include "platform/krel/http/http_rules.h"
#include "platform/krel/http/http_transport.h"
#include "platform/krel/http/krel_http.h"

struct http_coroutine_t;

struct krel_http_session_t {
  krel_http_connection_t *connection = nullptr;
  krel_http_request_t request;
  krel_http_response_t response;
  krel_http_rest_closure_t restc{};
  const krel_rest_mountpoint_t *rule = nullptr;
  bool counted = false;    // in the loop's requests in flight
  bool hooks_ran = false;  // those ahead of the handler
  bool response_hooks_ran = false;
  bool floating = false;      // parked for a job
  bool in_coroutine = false;  // a coroutine runs the handler, or is about to
  http_coroutine_t *coroutine = nullptr;
  bool failed = false;  // krel_http_session_fail
  int result = 0;       // of the handler
  int groups = 0;
  char *group[HTTP_MAX_GROUPS] = {};
  std::string group_text;

  void begin(krel_http_connection_t *of);
  void end();                                  // frees what the handler left
  bool set_groups(const http_match_t &match);  // false when one holds a NUL
  // The handler, or what replaced it; an exception becomes its answer. The connection may be parked
  // behind it.
  int call();
  int call_handler();
  void answer_error(int code, const char *text);
  void fail_internal();  // 500, or the end of the connection when the header is out
};

enum class http_state_e : uint8_t { header, handler, parked, response, discard, closing, lingering, gone };

struct krel_http_connection_t {
  explicit krel_http_connection_t(std::unique_ptr<http_transport_c> stream) : transport(std::move(stream)) {}
  ~krel_http_connection_t();

  http_wheel_entry_t wheel;  // first: see http_connection_of
  http_loop_t *loop = nullptr;
  krelev_event_t event = nullptr;  // null when a test drives the connection
  krelev_pool_t *pool = nullptr;
  std::unique_ptr<http_transport_c> transport;
  std::unique_ptr<krel_http_session_t> session;  // null between requests
  http_input_c input;
  http_queue_c out;
  pthread_t move_to{};
  http_state_e state = http_state_e::header;
  bool broken = false;   // nothing more can be written
  bool served = false;   // at least one request came
  bool moving = false;   // a handler asked for another owner
  bool blocked = false;  // the socket took no more
  bool close_after = false;
  bool owes = false;       // an ended request is counted until its answer is sent
  bool armed = false;      // the event is on the loop
  bool timed_out = false;  // of a body
  uint64_t seen = 0;       // of the body when its deadline was set

  // Starts on the calling loop thread.
  void start();
  // Goes as far as it can. The mask to wait for, or: PARKED; GONE, to be deleted; 0, with another thread
  // by now and not to be touched.
  static constexpr int GONE = -1, PARKED = -2;
  int run();
  void on_deadline();
  bool send();  // as far as the socket takes; false when it is broken
  bool pump_and_send(bool flushing);
  void park();                // off the loop
  void resume(bool call_on);  // on the owner's thread, after park
  void come_back();           // runs on and waits again, outside of the event's own callback

 private:
  enum class step_e { next, wait, parked, off, gone };

  step_e step_header();
  step_e read_header_bytes();
  step_e step_handler();
  step_e after_handler();
  step_e step_response();
  step_e step_discard();
  step_e step_closing();
  step_e step_lingering();
  step_e refuse(int code, const char *text);
  step_e start_request();
  step_e move(pthread_t owner);
  step_e die();
  step_e end_request();
  int wait_mask();
  void settle();
  void arm(int mask);
  static int on_event(krelev_event_t event, int mask, void *closure, const struct timeval *now);
};

// The connection that a wheel entry is part of.
krel_http_connection_t *http_connection_of(http_wheel_entry_t *entry);
// Takes a connected non-blocking stream over and serves it on that loop thread.
void http_connection_serve(std::unique_ptr<http_transport_c> transport, pthread_t owner);
// From now on every response ends its connection.
void http_connections_wind_up(bool on);
bool http_connections_winding_up();
