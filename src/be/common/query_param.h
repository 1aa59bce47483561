#pragma once
// Query parameters: named values with a parser each, and groups of which at most one may be given.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/krel/http/krel_http.h"

namespace velmar_be_common {

// A parser of one kind of value. parse leaves *out alone on bad input. Singletons; safe from any thread.
template <typename T>
class parser_c {
 public:
  virtual ~parser_c() = default;
  virtual bool parse(const char *text, T *out) const = 0;
};

using uuid_t = std::array<uint8_t, 16>;

const parser_c<bool> &get_krel_boolean_parser();
const parser_c<uint64_t> &get_uint64_parser();
const parser_c<uint64_t> &get_timestamp_s_parser();   // whole seconds
const parser_c<uint64_t> &get_timestamp_ms_parser();  // whole milliseconds
// Seconds, optionally with a dot and exactly three digits; the result is in milliseconds.
const parser_c<uint64_t> &get_timestamp_s_ms_parser();
const parser_c<uint64_t> &get_time_gm_s_parser();   // time text, not before 1970
const parser_c<uint64_t> &get_time_gm_ms_parser();  // the same in milliseconds
const parser_c<uint64_t> &get_duration_s_parser();
const parser_c<uint64_t> &get_duration_ms_parser();
const parser_c<uuid_t> &get_uuid_parser();

class query_param_c {
 public:
  explicit constexpr query_param_c(const char *name) : m_hash_key(name) {}
  virtual ~query_param_c() = default;
  const char *name() const { return m_hash_key; }
  // The value, decoded; null when it is not given.
  const char *find(krel_http_request_t *request) const {
    return krel_http_request_querystring(request, m_hash_key);
  }

 private:
  const char *m_hash_key;
};

enum class param_result_e { absent, ok, bad, conflict };

template <typename T>
class parse_param_c : public query_param_c {
 public:
  parse_param_c(const char *name, const parser_c<T> &parser) : query_param_c(name), m_parser(parser) {}
  param_result_e try_parse(krel_http_request_t *request, T *out) const {
    const char *text = find(request);
    if (!text) return param_result_e::absent;
    return m_parser.parse(text, out) ? param_result_e::ok : param_result_e::bad;
  }

 private:
  const parser_c<T> &m_parser;
};

// Two spellings of one value, of which at most one may be given.
template <typename T>
class exclusive_parse_params_c {
 public:
  exclusive_parse_params_c(parse_param_c<T> first, parse_param_c<T> second)
      : m_first(first), m_second(second) {}
  param_result_e try_parse(krel_http_request_t *request, T *out) const {
    const bool first = m_first.find(request), second = m_second.find(request);
    if (first && second) return param_result_e::conflict;
    return first ? m_first.try_parse(request, out) : m_second.try_parse(request, out);
  }

 private:
  parse_param_c<T> m_first, m_second;
};

}  // namespace velmar_be_common
