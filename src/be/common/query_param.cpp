#include "be/common/query_param.h"

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"

namespace velmar_be_common {

namespace {

// Wraps a function as a parser.
template <typename T>
class function_parser_c : public parser_c<T> {
 public:
  using function_t = bool (*)(std::string_view text, T *out);
  explicit function_parser_c(function_t function) : m_function(function) {}
  bool parse(const char *text, T *out) const override {
    T value;
    if (!text || !m_function(text, &value)) return false;
    *out = value;
    return true;
  }

 private:
  function_t m_function;
};

bool parse_s_ms(std::string_view text, uint64_t *out) {
  const size_t dot = text.find('.');
  uint64_t seconds, ms = 0;
  if (!krel_parse_uint64(text.substr(0, dot), &seconds) || seconds > UINT64_MAX / 1000 - 1) return false;
  if (dot != std::string_view::npos) {
    const std::string_view fraction = text.substr(dot + 1);
    if (fraction.size() != 3 || !krel_parse_uint64(fraction, &ms)) return false;
  }
  *out = seconds * 1000 + ms;
  return true;
}

// Time text as non-negative microseconds, divided down.
template <int64_t UNIT_US>
bool parse_time(std::string_view text, uint64_t *out) {
  int64_t us;
  if (!krel_confstr_parse_time_gm(text, &us) || us < 0) return false;
  *out = static_cast<uint64_t>(us / UNIT_US);
  return true;
}

template <const krel_duration_units_t *(*UNITS)()>
bool parse_duration(std::string_view text, uint64_t *out) {
  uint64_t value;
  if (!krel_confstr_parse_duration(text, UNITS(), &value)) return false;
  *out = value;
  return true;
}

bool parse_uuid(std::string_view text, uuid_t *out) {
  return krel_uuid_parse(std::string(text).c_str(), out->data()) == 0;
}

}  // namespace

const parser_c<bool> &get_krel_boolean_parser() {
  static const function_parser_c<bool> parser(
      [](std::string_view text, bool *out) { return krel_confstr_parse_boolean(text, out); });
  return parser;
}

const parser_c<uint64_t> &get_uint64_parser() {
  static const function_parser_c<uint64_t> parser(krel_parse_uint64);
  return parser;
}

const parser_c<uint64_t> &get_timestamp_s_parser() {
  return get_uint64_parser();
}
const parser_c<uint64_t> &get_timestamp_ms_parser() {
  return get_uint64_parser();
}

const parser_c<uint64_t> &get_timestamp_s_ms_parser() {
  static const function_parser_c<uint64_t> parser(parse_s_ms);
  return parser;
}

const parser_c<uint64_t> &get_time_gm_s_parser() {
  static const function_parser_c<uint64_t> parser(parse_time<1000000>);
  return parser;
}

const parser_c<uint64_t> &get_time_gm_ms_parser() {
  static const function_parser_c<uint64_t> parser(parse_time<1000>);
  return parser;
}

const parser_c<uint64_t> &get_duration_s_parser() {
  static const function_parser_c<uint64_t> parser(parse_duration<krel_get_durations_s>);
  return parser;
}

const parser_c<uint64_t> &get_duration_ms_parser() {
  static const function_parser_c<uint64_t> parser(parse_duration<krel_get_durations_ms>);
  return parser;
}

const parser_c<uuid_t> &get_uuid_parser() {
  static const function_parser_c<uuid_t> parser(parse_uuid);
  return parser;
}

}  // namespace velmar_be_common
