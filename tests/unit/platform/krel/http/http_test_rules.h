#pragma once
// Rules that the tests of this room talk to.

#include <atomic>
#include <string>
#include <vector>

#include "platform/krel/http/http_rules.h"
#include "platform/krel/http/krel_http.h"

// The body read so far; a handler's own state.
struct test_upload_t {
  static std::atomic<int> living;  // call_closure_free must run for each
  std::string body;
  test_upload_t() { living++; }
  ~test_upload_t() { living--; }
};

// Forgets all rules and registers:
//   GET /hello               "hello"
//   GET /name/(.*)/(\d*)     the groups, joined by "|"
//   GET /query               the parameter "a", in brackets; "none"
//   GET /header/(.+)         that header's value; "none"
//   PUT, POST, MERGE /echo   method, length and body; ?piece=N reads N bytes at a time,
//                            ?refuse answers 413 unread, ?options=N sets options
//   GET /stream/(\d+)        that many bytes, chunked
//   GET /throw, /throw_late  a handler that throws, before and behind a flush
//   GET /silent              a handler that answers nothing
void http_test_register_rules();
