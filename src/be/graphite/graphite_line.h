#pragma once
// One line of the plaintext form: `<name> <value> <time>`, the parts separated by one space or one tab each.
// Nothing is allocated; what is found looks into the line.

#include <cstdint>
#include <string>
#include <string_view>

#include "util/raw_record.h"

namespace be::graphite {

constexpr size_t NAME_LIMIT = 4096;  // a name is shorter

enum class line_fault_e {
  none,
  no_first_separator,
  name_too_long,
  no_second_separator,
  too_old,  // a time that cannot be read is one, too
  too_new,
  no_digits,
  bad_value,
};

struct line_t {
  std::string_view name;  // as it was sent
  uint64_t time_ms;
  dorn_record_m_value_t value;  // 'L', 'l' or 'n'
};

// `text` comes without its newline. The first fault in the order of the list is told.
line_fault_e parse_line(std::string_view text, uint64_t now_ms, line_t *line);

// "-" and digits make a signed integer, digits an unsigned one; one that does not fit 64 bits and any other
// number a double.
line_fault_e parse_value(std::string_view text, dorn_record_m_value_t *value);

inline bool name_has_tags(std::string_view name) {
  return name.find(';') != name.npos;
}
// The metric's name: "a;b=c;d=e" is `a|ST[b:c,d:e]`. Pieces without "=" are dropped; a name without ";" stands
// as it is.
void rewrite_name(std::string_view name, std::string *out);

}  // namespace be::graphite
