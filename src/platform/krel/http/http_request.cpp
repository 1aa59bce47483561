#include "platform/krel/http/http_request.h"

#include <cstring>

#include "platform/krel/http/krel_http.h"

namespace {

constexpr size_t max_query_parameters = 1024;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

size_t http_percent_decode(const char *from, size_t length, char *to, bool plus_is_blank) {
  char *out = to;
  for (size_t i = 0; i < length; i++) {
    char c = from[i];
    if (c == '%' && i + 2 < length) {
      const int high = hex_digit(from[i + 1]), low = hex_digit(from[i + 2]);
      if (high >= 0 && low >= 0) {
        c = static_cast<char>(high * 16 + low);
        i += 2;
      }
    } else if (c == '+' && plus_is_blank) {
      c = ' ';
    }
    *out++ = c;
  }
  return static_cast<size_t>(out - to);
}

std::string_view krel_http_request_t::header(std::string_view name) const {
  for (const http_header_t &h : headers) {
    if (h.name_length == name.size() && name_of(h) == name) return value_of(h);
  }
  return {};
}

const char *krel_http_request_t::joined_header(std::string_view name) const {
  const http_header_t *first = nullptr;
  std::string *joined = nullptr;
  for (const http_header_t &h : headers) {
    if (name_of(h) != name) continue;
    if (!first) {
      first = &h;
      continue;
    }
    if (!joined) joined = &m_joined.emplace_back(value_of(*first));
    joined->append(", ").append(value_of(h));
  }
  if (joined) return joined->c_str();
  return first ? base + first->value : nullptr;
}

void krel_http_request_t::parse_query() {
  m_query_parsed = true;
  const std::string_view all(query);
  m_query_text.resize(2 * all.size() + 2);  // decoded texts never grow; each gets its NUL
  char *out = m_query_text.data();
  const auto decode = [&out](std::string_view text) {
    char *start = out;
    const size_t n = http_percent_decode(text.data(), text.size(), out, true);
    out[n] = '\0';
    out += n + 1;
    return start;
  };
  for (size_t at = 0; at <= all.size() && m_query.size() < max_query_parameters;) {
    size_t end = all.find('&', at);
    if (end == std::string_view::npos) end = all.size();
    const std::string_view item = all.substr(at, end - at);
    at = end + 1;
    if (item.empty()) continue;
    const size_t equals = item.find('=');
    const char *name = decode(item.substr(0, equals));
    const char *value = equals == std::string_view::npos ? "" : decode(item.substr(equals + 1));
    m_query.emplace_back(name, value);
  }
}

const char *krel_http_request_t::query_parameter(std::string_view name) {
  if (*query == '\0') return nullptr;
  if (!m_query_parsed) parse_query();
  for (const auto &[key, value] : m_query) {
    if (name == key) return value;
  }
  return nullptr;
}

void krel_http_request_t::begin(http_input_c *from) {
  m_from = from;
  base = nullptr;
  headers.clear();
  if (headers.capacity() > 64) headers.shrink_to_fit();
  path = query = "";
  path_length = 0;
  content_length = 0;
  received = 0;
  error_code = 0;
  error = nullptr;
  minor = 1;
  header_complete = message_complete = chunked = keep_alive = expects_continue = aborted = malformed = false;
  coding = KREL_COMPRESS_NONE;
  decoder.reset();
  decoder_full = false;
  header_block.reset();
  m_url = m_url_length = m_trailer_bytes = 0;
  m_in_value = m_folded = false;
  m_input = nullptr;
  m_query_parsed = false;
  m_query.clear();
  if (m_query_text.capacity() > 4096) m_query_text = std::string();
  if (!m_joined.empty()) m_joined.clear();
}

// ---- the public face

std::string_view krel_http_request_method(const krel_http_request_t *request) {
  return request->method();
}

const char *krel_http_request_uri_str(const krel_http_request_t *request) {
  return request->path;
}

const char *krel_http_request_orig_querystring(const krel_http_request_t *request) {
  return request->query;
}

const char *krel_http_request_querystring(krel_http_request_t *request, const char *name) {
  return request->query_parameter(name);
}

const char *krel_http_request_header(const krel_http_request_t *request, const char *name) {
  return request->joined_header(name);
}

void krel_http_request_headers_each(const krel_http_request_t *request,
                                    void (*function)(const char *name, const char *value, void *closure),
                                    void *closure) {
  for (const http_header_t &h : request->headers)
    function(request->base + h.name, request->base + h.value, closure);
}

int64_t krel_http_request_content_length(const krel_http_request_t *request) {
  return request->chunked ? -1 : request->content_length;
}
