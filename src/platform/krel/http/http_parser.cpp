// The glue between the parser and a request: callbacks, and the checks the parser leaves to us.

#include <algorithm>
#include <cstring>

#include "platform/krel/http/http_request.h"

namespace {

constexpr size_t max_headers = 512;

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

bool equal_nocase(std::string_view a, std::string_view lower) {
  if (a.size() != lower.size()) return false;
  for (size_t i = 0; i < a.size(); i++) {
    const char c = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] | 0x20) : a[i];
    if (c != lower[i]) return false;
  }
  return true;
}

}  // namespace

struct http_parser_callbacks_t {
  static krel_http_request_t *of(llhttp_t *parser) { return static_cast<krel_http_request_t *>(parser->data); }

  static int on_url(llhttp_t *parser, const char *at, size_t length) {
    krel_http_request_t *r = of(parser);
    const auto offset = static_cast<uint32_t>(at - r->base);
    if (r->m_url_length == 0) r->m_url = offset;
    r->m_url_length = offset + static_cast<uint32_t>(length) - r->m_url;
    return 0;
  }

  static int on_header_field(llhttp_t *parser, const char *at, size_t length) {
    krel_http_request_t *r = of(parser);
    if (r->header_complete) return on_trailer(r, length);
    const auto offset = static_cast<uint32_t>(at - r->base);
    if (!r->m_in_value && !r->headers.empty()) {
      http_header_t &last = r->headers.back();
      if (last.name + last.name_length == offset) {  // the name went on in the next read
        last.name_length += static_cast<uint32_t>(length);
        return 0;
      }
    }
    if (r->headers.size() == max_headers) {
      r->fail(431, "too many headers");
      return HPE_USER;
    }
    r->headers.push_back({offset, static_cast<uint32_t>(length), 0, 0});
    r->m_in_value = false;
    return 0;
  }

  static int on_header_value(llhttp_t *parser, const char *at, size_t length) {
    krel_http_request_t *r = of(parser);
    if (r->header_complete) return on_trailer(r, length);
    if (r->headers.empty()) return HPE_USER;
    http_header_t &last = r->headers.back();
    const auto offset = static_cast<uint32_t>(at - r->base);
    if (!r->m_in_value)
      last.value = offset;
    else if (last.value + last.value_length != offset)
      r->m_folded = true;
    last.value_length = offset + static_cast<uint32_t>(length) - last.value;
    r->m_in_value = true;
    return 0;
  }

  // Trailers are read and dropped.
  static int on_trailer(krel_http_request_t *r, size_t length) {
    r->m_trailer_bytes += static_cast<uint32_t>(std::min<size_t>(length, HTTP_MAX_HEADER));
    return r->m_trailer_bytes > HTTP_MAX_HEADER ? HPE_USER : 0;
  }

  static int on_headers_complete(llhttp_t *parser) {
    krel_http_request_t *r = of(parser);
    r->header_complete = true;
    r->keep_alive = llhttp_should_keep_alive(parser) != 0;
    r->chunked = (parser->flags & F_CHUNKED) != 0;
    r->content_length = static_cast<int64_t>(parser->content_length);
    parser->upgrade = 0;  // no protocol to upgrade to
    return r->chunked || parser->content_length > 0 ? HPE_PAUSED : 0;
  }

  static int on_body(llhttp_t *parser, const char *at, size_t length) {
    krel_http_request_t *r = of(parser);
    r->received += length;
    if (r->m_input) r->m_input->stage(at, length);
    return 0;
  }

  static int on_message_complete(llhttp_t *parser) {
    of(parser)->message_complete = true;
    return HPE_PAUSED;
  }

  static const llhttp_settings_t *settings() {
    static const llhttp_settings_t all = [] {
      llhttp_settings_t s;
      llhttp_settings_init(&s);
      s.on_url = on_url;
      s.on_header_field = on_header_field;
      s.on_header_value = on_header_value;
      s.on_headers_complete = on_headers_complete;
      s.on_body = on_body;
      s.on_message_complete = on_message_complete;
      return s;
    }();
    return &all;
  }
};

http_parse_e krel_http_request_t::fail(int code, const char *reason) {
  if (error_code == 0) {
    error_code = code;
    error = reason;
  }
  return http_parse_e::failed;
}

http_parse_e krel_http_request_t::parse_header(http_input_c &input) {
  if (!base) {
    llhttp_init(&parser, HTTP_REQUEST, http_parser_callbacks_t::settings());
    parser.data = this;
  }
  base = input.request_start();
  const char *from = input.at(input.raw());
  const llhttp_errno_t result = llhttp_execute(&parser, from, input.unparsed());
  if (result == HPE_OK) {
    input.parsed(input.unparsed());
    if (input.header_length() > HTTP_MAX_HEADER) return fail(431, "header too large");
    return http_parse_e::more;
  }
  if (result != HPE_PAUSED || !header_complete) {
    if (input.header_length() > HTTP_MAX_HEADER) return fail(431, "header too large");
    return fail(400, "malformed request");
  }
  input.parsed(static_cast<size_t>(llhttp_get_error_pos(&parser) - from));
  llhttp_resume(&parser);
  const size_t length = input.header_length();
  input.header_done();
  if (length > HTTP_MAX_HEADER) return fail(431, "header too large");
  return check_header();
}

http_parse_e krel_http_request_t::check_header() {
  minor = parser.http_minor;
  if (m_url_length == 0) return fail(400, "malformed request");
  const char *version = base + m_url + m_url_length;
  while (is_blank(*version)) version++;
  if (memcmp(version, "HTTP/", 5) != 0) return fail(400, "malformed request");
  if (parser.http_major != 1 || minor > 1) return fail(505, "unsupported version");
  if (!check_fields() || !check_framing() || !check_target()) return http_parse_e::failed;
  return http_parse_e::complete;
}

// Every byte of the header is in a place of its own: no folded lines, no control characters. Names
// become lower case; names and values end in a NUL.
bool krel_http_request_t::check_fields() {
  if (m_folded) return fail_with(400, "folded header");
  size_t hosts = 0;
  for (http_header_t &h : headers) {
    if (h.name_length == 0) return fail_with(400, "malformed request");
    for (uint32_t i = 0; i < h.name_length; i++) {
      char &c = base[h.name + i];
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
    }
    const uint32_t colon = h.name + h.name_length;
    if (base[colon] != ':') return fail_with(400, "malformed request");
    uint32_t start = colon + 1;
    while (is_blank(base[start])) start++;
    if (h.value_length == 0) h.value = start;  // the parser says nothing of use for an empty one
    if (h.value != start || (h.value_length == 0 && is_blank(base[start + 2])))
      return fail_with(400, "folded header");
    for (uint32_t i = h.value; i < h.value + h.value_length; i++) {
      const auto c = static_cast<unsigned char>(base[i]);
      if ((c < 0x20 && c != '\t') || c == 0x7f) return fail_with(400, "malformed request");
    }
    while (h.value_length > 0 && is_blank(base[h.value + h.value_length - 1])) h.value_length--;
    base[colon] = base[h.value + h.value_length] = '\0';
    if (name_of(h) == "host") hosts++;
  }
  if (minor == 1 && hosts != 1) return fail_with(400, "exactly one host header is needed");
  return true;
}

// What could make two readers of the same bytes see different messages is refused.
bool krel_http_request_t::check_framing() {
  size_t codings = 0;
  std::string_view transfer, content, expect;
  for (const http_header_t &h : headers) {
    const std::string_view name = name_of(h);
    if (name == "transfer-encoding") {
      transfer = value_of(h);
      codings++;
    } else if (name == "content-encoding") {
      if (!content.empty()) return fail_with(415, "unsupported content encoding");
      content = value_of(h);
    } else if (name == "expect") {
      expect = value_of(h);
    }
  }
  if (codings > 0) {
    if (minor == 0) return fail_with(400, "transfer encoding in an old version");
    if (codings > 1 || !equal_nocase(transfer, "chunked"))
      return fail_with(501, "unsupported transfer encoding");
  }
  if (content_length < 0) return fail_with(400, "malformed request");
  if (!krel_compress_type_parse(content, &coding)) return fail_with(415, "unsupported content encoding");
  if (!expect.empty() && minor == 1) {
    if (!equal_nocase(expect, "100-continue")) return fail_with(417, "unsupported expectation");
    expects_continue = !message_complete;
  }
  return true;
}

bool krel_http_request_t::check_target() {
  char *url = base + m_url;
  size_t length = m_url_length;
  url[length] = '\0';
  if (url[0] != '/' && url[0] != '*') {  // absolute form
    const char *authority = strstr(url, "://");
    if (!authority) return fail_with(400, "malformed request");
    char *slash = url + (authority + 3 - url);
    while (*slash != '\0' && *slash != '/' && *slash != '?' && *slash != '#') slash++;
    if (*slash != '/') return fail_with(400, "malformed request");
    length -= static_cast<size_t>(slash - url);
    url = slash;
  }
  if (char *fragment = static_cast<char *>(memchr(url, '#', length))) {
    *fragment = '\0';
    length = static_cast<size_t>(fragment - url);
  }
  if (char *mark = static_cast<char *>(memchr(url, '?', length))) {
    *mark = '\0';
    query = mark + 1;
    length = static_cast<size_t>(mark - url);
  }
  path = url;
  path_length = static_cast<uint32_t>(length);
  return true;
}

bool krel_http_request_t::parse_body(http_input_c &input) {
  m_input = &input;
  const char *from = input.at(input.raw());
  const llhttp_errno_t result = llhttp_execute(&parser, from, input.unparsed());
  m_input = nullptr;
  if (result == HPE_OK) {
    input.parsed(input.unparsed());
    return true;
  }
  if (result != HPE_PAUSED || !message_complete) return false;
  input.parsed(static_cast<size_t>(llhttp_get_error_pos(&parser) - from));
  return true;
}

bool krel_http_request_t::parse_direct(const char *bytes, size_t length) {
  const llhttp_errno_t result = llhttp_execute(&parser, bytes, length);
  return result == HPE_OK || (result == HPE_PAUSED && message_complete);
}

size_t krel_http_request_t::body_left() const {
  return static_cast<size_t>(content_length) - static_cast<size_t>(received);
}
