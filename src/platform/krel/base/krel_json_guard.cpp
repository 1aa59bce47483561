#include "platform/krel/base/krel_json_guard.h"

#include <cstdint>
#include <string_view>

#include "platform/krel/base/krel_util.h"

namespace {

constexpr size_t SAFE_DIGITS = 18;  // that many characters always fit

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_number(char c) {
  return is_digit(c) || c == '-' || c == '.' || c == 'e' || c == 'E' || c == '+';
}

}  // namespace

const char *krel_json_guard_c::look(const char *text, size_t length) {
  for (const char *at = text, *const end = text + length; at < end; ++at) {
    const char c = *at;
    const char *wrong = nullptr;
    switch (m_in) {
      case in_e::STRING:
        if (c == '"') {
          m_in = in_e::STRUCTURE;
        } else if (c == '\\') {
          m_in = in_e::ESCAPE;
        } else if (static_cast<unsigned char>(c) < 0x20) {
          wrong = "control character in a string";
        }
        break;
      case in_e::ESCAPE:
        m_in = in_e::STRING;
        break;
      case in_e::NUMBER:
        if (is_number(c)) {
          m_last = next(m_last, c);
          if (m_last == number_e::WRONG) return "malformed number";
          if (m_digits < sizeof m_number) m_number[m_digits] = c;
          ++m_digits;
          break;
        }
        if ((wrong = end_number()) == nullptr) wrong = structure(c);
        break;
      case in_e::STRUCTURE:
        wrong = structure(c);
        break;
    }
    if (wrong != nullptr) return wrong;
  }
  return nullptr;
}

const char *krel_json_guard_c::structure(char c) {
  if (c == '"') {
    m_in = in_e::STRING;
  } else if (is_digit(c) || c == '-') {
    m_in = in_e::NUMBER;
    m_last = c == '-' ? number_e::MINUS : c == '0' ? number_e::ZERO : number_e::INTEGER;
    m_digits = 1;
    m_number[0] = c;
  } else if (c == '\'' || (c >= 'A' && c <= 'Z')) {
    return "unexpected character";
  }
  return nullptr;
}

krel_json_guard_c::number_e krel_json_guard_c::next(number_e last, char c) {
  const bool digit = is_digit(c), point = c == '.', e = c == 'e' || c == 'E';
  switch (last) {
    case number_e::MINUS:
      return !digit ? number_e::WRONG : c == '0' ? number_e::ZERO : number_e::INTEGER;
    case number_e::ZERO:
      return point ? number_e::POINT : e ? number_e::E : number_e::WRONG;
    case number_e::INTEGER:
      return digit ? number_e::INTEGER : point ? number_e::POINT : e ? number_e::E : number_e::WRONG;
    case number_e::POINT:
      return digit ? number_e::FRACTION : number_e::WRONG;
    case number_e::FRACTION:
      return digit ? number_e::FRACTION : e ? number_e::E : number_e::WRONG;
    case number_e::E:
      return digit ? number_e::EXPONENT : c == '+' || c == '-' ? number_e::E_SIGN : number_e::WRONG;
    case number_e::E_SIGN:
    case number_e::EXPONENT:
      return digit ? number_e::EXPONENT : number_e::WRONG;
    case number_e::WRONG:
      break;
  }
  return number_e::WRONG;
}

const char *krel_json_guard_c::end_number() {
  if (m_in != in_e::NUMBER) return nullptr;
  m_in = in_e::STRUCTURE;
  if (m_last == number_e::FRACTION || m_last == number_e::EXPONENT || m_last == number_e::ZERO) return nullptr;
  if (m_last != number_e::INTEGER) return "malformed number";
  if (m_digits <= SAFE_DIGITS) return nullptr;
  if (m_digits > sizeof m_number) return "integer over 64 bits";
  const std::string_view text(m_number, m_digits);
  int64_t negative;
  uint64_t positive;
  const bool fits = text[0] == '-' ? krel_parse_int64(text, &negative) : krel_parse_uint64(text, &positive);
  return fits ? nullptr : "integer over 64 bits";
}
