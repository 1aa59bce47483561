#include "platform/krel/http/http_response.h"

#include <strings.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/http/http_request.h"

namespace {

constexpr size_t whole_below = 64 * 1024;  // a shorter encoded body is sent with its length

char *put(char *to, std::string_view text) {
  memcpy(to, text.data(), text.size());
  return to + text.size();
}

char *put_number(char *to, uint64_t value, int base = 10) {
  return std::to_chars(to, to + 20, value, base).ptr;
}

bool is_token(std::string_view text) {
  for (const char c : text) {
    if (c <= ' ' || c == ':' || static_cast<unsigned char>(c) >= 0x7f) return false;
  }
  return !text.empty();
}

bool has_control(std::string_view text) {
  for (const char c : text) {
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f) return true;
  }
  return false;
}

}  // namespace

bool http_equal_nocase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

const char *http_reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 413:
      return "Content Too Large";
    case 415:
      return "Unsupported Media Type";
    case 417:
      return "Expectation Failed";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return status < 400 ? "OK" : "Error";
  }
}

void krel_http_response_t::begin() {
  status = 0;
  reason.clear();
  headers.clear();
  if (headers.capacity() > 4096) headers.shrink_to_fit();
  body.clear();
  header_out = final = ended = close = broken = false;
  m_framing = framing_e::none;
  m_encoding = KREL_COMPRESS_NONE;
  m_encoder.stop();
  m_want_chunked = m_bodiless = m_unflushed = false;
  m_length = 0;
}

void krel_http_response_t::reset_to_error() {
  const bool closing = close;
  begin();
  close = closing;
}

size_t krel_http_response_t::find_header(std::string_view name) const {
  for (size_t at = 0; at < headers.size();) {
    const std::string_view line = std::string_view(headers).substr(at);
    if (line.size() > name.size() && line[name.size()] == ':' &&
        http_equal_nocase(line.substr(0, name.size()), name))
      return at;
    at += line.find('\n') + 1;
  }
  return std::string::npos;
}

bool krel_http_response_t::set_header(std::string_view name, std::string_view value) {
  if (!is_token(name) || has_control(value)) {
    krel_log(krel_error, "http: refused the response header \"%.*s\"\n", static_cast<int>(name.size()),
             name.data());
    return false;
  }
  if (http_equal_nocase(name, "connection")) {
    if (http_equal_nocase(value, "close")) close = true;
    return true;  // the layer writes it
  }
  if (http_equal_nocase(name, "transfer-encoding")) return false;
  const size_t old = find_header(name);
  if (old != std::string::npos) headers.erase(old, headers.find('\n', old) + 1 - old);
  headers.append(name).append(": ").append(value).append("\r\n");
  return true;
}

// A handler may know the length of what it will stream.
void krel_http_response_t::take_declared_length() {
  const size_t at = find_header("content-length");
  if (at == std::string::npos) return;
  const size_t end = headers.find('\n', at) + 1;
  const std::string_view value(headers.data() + at + 16, end - 2 - at - 16);
  if (krel_parse_uint64(value, &m_length) && m_encoding == KREL_COMPRESS_NONE) m_framing = framing_e::length;
  headers.erase(at, end - at);
}

void krel_http_response_t::choose_framing(const krel_http_request_t &request) {
  m_framing = framing_e::none;
  const bool no_body = status == 204 || status == 304 || status < 200;
  m_bodiless = no_body || request.is_head();
  take_declared_length();
  if (no_body) {
    m_encoding = KREL_COMPRESS_NONE;
    m_framing = framing_e::none;
    return;
  }
  if (m_encoding != KREL_COMPRESS_NONE && !m_encoder.start(m_encoding)) m_encoding = KREL_COMPRESS_NONE;
  if (m_framing == framing_e::length) return;
  if (final && !m_want_chunked && (m_encoding == KREL_COMPRESS_NONE || encode_whole())) {
    m_framing = framing_e::length;
    m_length = body.size();
  } else if (request.minor >= 1) {
    m_framing = framing_e::chunked;
  } else {
    m_framing = framing_e::until_close;
    close = true;
  }
}

// A short body that is complete is encoded before its header is written.
bool krel_http_response_t::encode_whole() {
  if (body.size() > whole_below) return false;
  http_queue_c encoded;
  while (!body.empty()) {
    if (!encode_front(encoded)) break;
  }
  if (!body.empty() || !m_encoder.finish(encoded)) broken = true;
  m_encoder.stop();
  body.clear();
  body.splice(encoded);
  return true;
}

void krel_http_response_t::write_header(const krel_http_request_t &request, http_queue_c &out,
                                        std::string_view date) {
  const std::string_view why =
      reason.empty() ? std::string_view(http_reason(status)) : std::string_view(reason);
  if (!request.keep_alive) close = true;
  char *const start = out.reserve(256 + why.size() + headers.size() + date.size());
  char *to = put(start, "HTTP/1.1 ");
  to = put_number(to, static_cast<uint64_t>(status));
  *to++ = ' ';
  to = put(to, why);
  to = put(to, "\r\n");
  to = put(to, date);
  to = put(to, headers);
  if (m_encoding != KREL_COMPRESS_NONE) {
    to = put(to, "Content-Encoding: ");
    to = put(to, krel_compress_type_name(m_encoding));
    to = put(to, "\r\nVary: Accept-Encoding\r\n");
  }
  if (m_framing == framing_e::length) {
    to = put(to, "Content-Length: ");
    to = put_number(to, m_length);
    to = put(to, "\r\n");
  } else if (m_framing == framing_e::chunked) {
    to = put(to, "Transfer-Encoding: chunked\r\n");
  }
  if (close)
    to = put(to, "Connection: close\r\n");
  else if (request.minor == 0)
    to = put(to, "Connection: keep-alive\r\n");
  to = put(to, "\r\n");
  out.commit(static_cast<size_t>(to - start));
  header_out = true;
}

// One stretch of body bytes as they go on the wire.
void krel_http_response_t::emit(http_queue_c &piece, http_queue_c &out) {
  const size_t size = piece.size();
  if (size == 0) return;
  if (m_framing == framing_e::length) {
    if (size > m_length) {
      krel_log(krel_error, "http: a handler wrote more than the length it had declared\n");
      broken = true;
      return;
    }
    m_length -= size;
  }
  if (m_framing == framing_e::chunked) {
    char *const start = out.reserve(24);
    char *to = put_number(start, size, 16);
    to = put(to, "\r\n");
    out.commit(static_cast<size_t>(to - start));
    out.splice(piece);
    out.append("\r\n");
  } else {
    out.splice(piece);
  }
}

// Encodes the first piece of the body. False when it cannot be read or encoded.
bool krel_http_response_t::encode_front(http_queue_c &encoded) {
  http_segment_t *front = body.front();
  m_unflushed = true;
  if (front->fd < 0) {
    const size_t n = front->size();
    if (!m_encoder.encode(front->data() + front->begin, n, encoded)) return false;
    body.consume(n);
    return true;
  }
  char buffer[8192];
  const ssize_t n =
      ::pread(front->fd, buffer, std::min(sizeof(buffer), front->size()), static_cast<off_t>(front->begin));
  if (n <= 0 || !m_encoder.encode(buffer, static_cast<size_t>(n), encoded)) return false;
  body.consume(static_cast<size_t>(n));
  return true;
}

// Brings the encoder's output to `out` while that has room; true when all of the body is there.
bool krel_http_response_t::encode_some(http_queue_c &out, bool flushing) {
  http_queue_c encoded;
  while (!body.empty()) {
    if (out.size() + encoded.size() >= HTTP_HIGH_WATER) {
      emit(encoded, out);
      return false;
    }
    if (!encode_front(encoded)) {
      broken = true;
      return false;
    }
    if (encoded.size() >= whole_below) emit(encoded, out);
  }
  if (final) {
    broken |= !m_encoder.finish(encoded);
    m_encoder.stop();
  } else if (flushing && m_unflushed) {
    broken |= !m_encoder.flush(encoded);
    m_unflushed = false;
  }
  emit(encoded, out);
  return true;
}

void krel_http_response_t::pump(const krel_http_request_t &request, http_queue_c &out, std::string_view date,
                                bool flushing) {
  if (ended || broken) return;
  if (!header_out) {
    choose_framing(request);
    write_header(request, out, date);
  }
  if (m_bodiless) {
    body.clear();
    m_encoder.stop();
    ended = final;
    return;
  }
  if (m_encoder) {
    if (!encode_some(out, flushing)) return;
  } else {
    emit(body, out);
  }
  if (!final || broken) return;
  if (m_framing == framing_e::chunked) out.append("0\r\n\r\n");
  if (m_framing == framing_e::length && m_length > 0) {
    krel_log(krel_error, "http: a handler wrote less than the length it had declared\n");
    broken = true;
    return;
  }
  ended = true;
}
