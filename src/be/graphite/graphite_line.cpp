#include "be/graphite/graphite_line.h"

#include <cstring>

#include "ingestion/metric_validation.h"
#include "util/raw_record_number.h"

namespace be::graphite {

namespace {

// Where the nearer of a space and a tab stands, or npos.
size_t find_separator(std::string_view text) {
  const void *space = memchr(text.data(), ' ', text.size());
  const size_t end = space ? static_cast<size_t>(static_cast<const char *>(space) - text.data()) : text.size();
  const void *tab = memchr(text.data(), '\t', end);
  if (tab) return static_cast<size_t>(static_cast<const char *>(tab) - text.data());
  return space ? end : text.npos;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

line_fault_e parse_value(std::string_view text, dorn_record_m_value_t *value) {
  const bool negative = text.starts_with('-');
  const char *end = text.data();
  value->is_null = false;
  if (negative) {
    value->type = VELMAR_METRIC_INT64;
    value->storage.v_int64 = stringtoll(text.data(), text.size(), &end);
  } else {
    value->type = VELMAR_METRIC_UINT64;
    value->storage.v_uint64 = stringtoull(text.data(), text.size(), &end);
  }
  if (end == text.data() + text.size() && end != text.data()) return line_fault_e::none;
  bool digits = false;
  for (const char c : text) digits |= is_digit(c);
  if (!digits) return line_fault_e::no_digits;
  value->type = VELMAR_METRIC_DOUBLE;
  return stringtod(text, &value->storage.v_double) ? line_fault_e::none : line_fault_e::bad_value;
}

line_fault_e parse_line(std::string_view text, uint64_t now_ms, line_t *line) {
  const size_t first = find_separator(text);
  if (first == text.npos) return line_fault_e::no_first_separator;
  line->name = text.substr(0, first);
  if (first >= NAME_LIMIT) return line_fault_e::name_too_long;
  text.remove_prefix(first + 1);
  const size_t second = find_separator(text);
  if (second == text.npos) return line_fault_e::no_second_separator;

  uint64_t whence_ms = 0;
  dorn_record_parse_m_timestamp(text.substr(second + 1), &whence_ms);
  const auto time = db::ingestion::cleanse_time_at(whence_ms, now_ms);
  if (!time.valid)
    return time.verdict == db::ingestion::cleanse_time_verdict_e::future ? line_fault_e::too_new
                                                                         : line_fault_e::too_old;
  line->time_ms = time.time;
  return parse_value(text.substr(0, second), &line->value);
}

void rewrite_name(std::string_view name, std::string *out) {
  size_t at = name.find(';');
  out->assign(name.substr(0, at));
  if (at == name.npos) return;
  *out += "|ST[";
  bool first = true;
  while (at != name.npos) {
    name.remove_prefix(at + 1);
    at = name.find(';');
    const std::string_view piece = name.substr(0, at);
    const size_t equals = piece.find('=');
    if (equals == piece.npos) continue;
    if (!first) *out += ',';
    first = false;
    out->append(piece.substr(0, equals)).append(1, ':').append(piece.substr(equals + 1));
  }
  *out += ']';
}

}  // namespace be::graphite
