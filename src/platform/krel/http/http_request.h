#pragma once
// One request: its header as offsets into the bytes received, and the parser that reads it.

#include <llhttp.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "platform/krel/base/krel_compress.h"
#include "platform/krel/http/http_input.h"

struct http_header_t {
  uint32_t name, name_length, value, value_length;  // offsets from the request's first byte
};

enum class http_parse_e { more, complete, failed };

struct krel_http_request_t {
  llhttp_t parser;
  char *base = nullptr;  // the request's first byte; stays once the header is complete
  std::vector<http_header_t> headers;
  const char *path = "";
  uint32_t path_length = 0;
  const char *query = "";
  int64_t content_length = 0;
  uint64_t received = 0;  // body bytes off the wire, framing taken off
  int error_code = 0;     // the status of a failed header, and its reason
  const char *error = nullptr;
  uint8_t minor = 1;
  bool header_complete = false, message_complete = false;
  bool chunked = false, keep_alive = false, expects_continue = false;
  bool aborted = false;    // the client went away or stalls
  bool malformed = false;  // the body's framing or coding is broken

  krel_compress_type_e coding = KREL_COMPRESS_NONE;
  krel_stream_decompress_ptr decoder;
  bool decoder_full = false;  // it may hold output
  http_segment_ptr header_block;

  void begin(http_input_c *from);  // of a new request; keeps memory for reuse
  // Parses what is unparsed of the input. failed: error_code and error tell.
  http_parse_e parse_header(http_input_c &input);
  // Takes the framing off what is unparsed and stages the rest. False when the framing is broken.
  bool parse_body(http_input_c &input);
  // The same for bytes read straight into the reader's memory, all of which are body.
  bool parse_direct(const char *bytes, size_t length);

  std::string_view method() const { return llhttp_method_name(static_cast<llhttp_method_t>(parser.method)); }
  bool is_head() const { return header_complete && parser.method == HTTP_HEAD; }
  std::string_view header(std::string_view name) const;  // the first of that name; data() null when none
  const char *joined_header(std::string_view name) const;
  const char *query_parameter(std::string_view name);
  size_t body_left() const;  // of a body with a length
  bool has_staged() const { return m_from && m_from->staged() > 0; }

 private:
  friend struct http_parser_callbacks_t;
  std::string_view name_of(const http_header_t &h) const { return {base + h.name, h.name_length}; }
  std::string_view value_of(const http_header_t &h) const { return {base + h.value, h.value_length}; }
  http_parse_e fail(int code, const char *reason);
  http_parse_e check_header();
  bool check_fields();
  bool check_framing();
  bool check_target();
  bool fail_with(int code, const char *reason) { return fail(code, reason) == http_parse_e::more; }
  void parse_query();

  uint32_t m_url = 0, m_url_length = 0;
  uint32_t m_trailer_bytes = 0;
  bool m_in_value = false, m_folded = false;
  http_input_c *m_from = nullptr;   // the connection's
  http_input_c *m_input = nullptr;  // where body bytes are staged; null: they are where they belong
  bool m_query_parsed = false;
  std::string m_query_text;
  std::vector<std::pair<const char *, const char *>> m_query;
  mutable std::deque<std::string> m_joined;
};

// Decodes %XX once; in `text` itself when it is the target. A "%" that starts no escape stays.
// Returns the decoded length.
size_t http_percent_decode(const char *from, size_t length, char *to, bool plus_is_blank);
