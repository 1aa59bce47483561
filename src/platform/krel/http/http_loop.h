#pragma once
// What the connections of one loop thread share: the timeout wheel, spare sessions and the
// thread's share of the figures. Everything here is for that thread only, the counts excepted.

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/krel/event/krelev.h"

struct krel_http_connection_t;
struct krel_http_session_t;

// Time limits in milliseconds, from //rest/@header_timeout and so on.
struct http_timeouts_t {
  uint32_t header_ms = 30000;  // first byte (or accept) to complete header
  uint32_t idle_ms = 75000;    // between requests
  uint32_t body_ms = 30000;    // without progress of a body that a handler waits for
  uint32_t write_ms = 60000;   // without progress of a response
  uint32_t linger_ms = 2000;   // reading on after a refused body
};
const http_timeouts_t &http_timeouts();
void http_timeouts_set(const http_timeouts_t &timeouts);  // at start-up

// Member of a connection: its place in the wheel. A deadline that moves away is only noted; the wheel
// looks at it again when the old place comes round.
struct http_wheel_entry_t {
  http_wheel_entry_t *prev = nullptr, *next = nullptr;
  uint32_t deadline = 0;  // in ticks; 0: none
  uint32_t placed = 0;    // the tick of the slot it is in
};

struct http_loop_t {
  static http_loop_t *current();  // of the calling thread, made when missing; never freed

  void link(http_wheel_entry_t *entry);    // a connection comes to this loop
  void unlink(http_wheel_entry_t *entry);  // and leaves it
  void set_deadline(http_wheel_entry_t *entry, uint32_t milliseconds);
  void clear_deadline(http_wheel_entry_t *entry) { entry->deadline = 0; }

  std::unique_ptr<krel_http_session_t> take_session();
  void give_session(std::unique_ptr<krel_http_session_t> session);

  std::atomic<int64_t> in_flight{0};  // may be negative here: a request can move between loops

 private:
  static constexpr uint32_t slots = 128;  // a power of two
  static constexpr size_t spare_sessions = 64;

  static int on_tick(krelev_event_t event, int mask, void *closure, const struct timeval *now);
  void advance();
  void place(http_wheel_entry_t *entry);
  void start_ticking();

  http_wheel_entry_t m_wheel[slots];  // heads of circular lists
  uint32_t m_tick = 1;
  size_t m_linked = 0;
  krelev_event_t m_tick_event = nullptr;
  bool m_ticking = false;
  std::vector<std::unique_ptr<krel_http_session_t>> m_spare;

 public:
  http_loop_t();
  ~http_loop_t();
};

int64_t http_in_flight();             // over all loops
std::string_view http_date_header();  // "Date: ...\r\n"; valid until the thread asks again
