#pragma once
// One response: status, headers and appended body, turned into bytes for the connection.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/krel/http/http_encoding.h"
#include "platform/krel/http/http_segments.h"

struct http_loop_t;
struct krel_http_request_t;

constexpr size_t HTTP_HIGH_WATER = 256 * 1024;  // encoded bytes that may wait for the socket

struct krel_http_response_t {
  int status = 0;  // 0: not set
  std::string reason;
  std::string headers;  // "Name: value\r\n"...
  http_queue_c body;    // appended and not yet framed
  bool header_out = false;
  bool final = false;   // no more will be appended
  bool ended = false;   // and all of it has been framed
  bool close = false;   // the connection ends with it
  bool broken = false;  // what is on the wire cannot be brought to an end

  void begin();
  void reset_to_error();  // drops what is not on the wire yet
  bool set_header(std::string_view name, std::string_view value);
  bool has_header(std::string_view name) const { return find_header(name) != std::string::npos; }
  void set_encoding(krel_compress_type_e type) { m_encoding = type; }
  void set_chunked() { m_want_chunked = true; }
  // Moves body to `out`, the header first, as far as `out` has room. `date` is a whole header line.
  // flushing: a reader must get all that was appended so far.
  void pump(const krel_http_request_t &request, http_queue_c &out, std::string_view date, bool flushing);

 private:
  enum class framing_e : uint8_t { none, length, chunked, until_close };

  size_t find_header(std::string_view name) const;
  void choose_framing(const krel_http_request_t &request);
  void take_declared_length();
  bool encode_whole();
  void write_header(const krel_http_request_t &request, http_queue_c &out, std::string_view date);
  void emit(http_queue_c &piece, http_queue_c &out);
  bool encode_some(http_queue_c &out, bool flushing);
  bool encode_front(http_queue_c &encoded);

  framing_e m_framing = framing_e::none;
  krel_compress_type_e m_encoding = KREL_COMPRESS_NONE;
  http_encoder_c m_encoder;
  bool m_want_chunked = false;
  bool m_bodiless = false;   // HEAD, 204, 304
  bool m_unflushed = false;  // the encoder holds bytes
  uint64_t m_length = 0;     // with framing_e::length: what is still to come
};

const char *http_reason(int status);
bool http_equal_nocase(std::string_view a, std::string_view b);
