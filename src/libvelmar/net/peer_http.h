#pragma once
// HTTP calls to peers, behind an interface: libcurl in the node, a script in tests.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct peer_request_t {
  std::string method = "GET";
  std::string url{};
  std::vector<std::string> headers{};     // "Name: value"
  std::string_view body{};                // sent when not empty; must outlive the call
  std::vector<std::string> connect_to{};  // "HOST:PORT:ADDRESS:PORT", as curl takes them
  std::string ca_chain{};                 // certificate authority file; empty: the system's
  int connect_timeout_ms = 3005;
  int timeout_ms = 0;    // of the whole call; 0: none
  int low_speed_ms = 0;  // from 1000 on: give up when nothing moves for that long
};

struct peer_result_t {
  int code = 0;          // 0: a response came in whole; else the transport's error code
  std::string error;     // text of `code`
  int64_t httpcode = 0;  // 0: not set
  int64_t total_ms = 0;
  bool ok() const { return code == 0 && httpcode == 200; }
};

// Gets each piece of the body as it arrives; false ends the transfer with an error.
using peer_body_callback_t = std::function<bool(std::string_view piece)>;
// Gets each header with its name in lower case.
using peer_header_callback_t = std::function<void(std::string_view name, std::string_view value)>;

class peer_http_c {
 public:
  virtual ~peer_http_c() = default;
  // Blocks; never on a loop thread. Safe from any number of threads.
  virtual peer_result_t perform(const peer_request_t &request, const peer_body_callback_t &on_body,
                                const peer_header_callback_t &on_header) = 0;
};

// The implementation in force: libcurl with one handle (and its kept-alive connections) per thread.
peer_http_c *peer_http();
// Tests put a scripted peer in its place; null brings libcurl back.
void peer_http_set(peer_http_c *peer);

// Splits one header line: skips leading blanks, cuts at the first colon, lower-cases the name, skips blanks,
// cuts at CRLF. Status lines and lines over 1 MiB are passed over (false).
bool http_header_parse(std::string_view line, std::string *name, std::string *value);
