#include "util/raw_record_number.h"

#include <locale.h>
#include <stdlib.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <string>

static bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Digits up to `max`. *end is behind the last one taken; true when one more would have passed max.
static bool read_digits(const char *text, const char *stop, unsigned long long max, unsigned long long *value,
                        const char **end) {
  unsigned long long sum = 0;
  const char *p = text;
  for (; p < stop && is_digit(*p); p++) {
    const auto digit = static_cast<unsigned long long>(*p - '0');
    if (sum > max / 10 || sum * 10 > max - digit) {
      *end = p;
      return true;
    }
    sum = sum * 10 + digit;
  }
  *value = sum;
  *end = p;
  return false;
}

unsigned long long stringtoull(const char *text, size_t length, const char **end) {
  unsigned long long value = 0;
  if (!read_digits(text, text + length, ULLONG_MAX, &value, end)) return value;
  errno = ERANGE;
  return ULLONG_MAX;
}

long long stringtoll(const char *text, size_t length, const char **end) {
  const bool negative = length > 0 && *text == '-';
  const char *digits = text + negative;
  const unsigned long long max = static_cast<unsigned long long>(LLONG_MAX) + negative;
  unsigned long long value = 0;
  if (read_digits(digits, text + length, max, &value, end)) {
    errno = ERANGE;
    return negative ? LLONG_MIN : LLONG_MAX;
  }
  if (*end == digits) *end = text;  // no digit, no number
  return negative ? static_cast<long long>(0 - value) : static_cast<long long>(value);
}

// The seldom forms (0x..., an exponent out of range) go through strtod itself.
static bool strtod_whole(std::string_view text, double *value) {
  static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  const std::string copy(text);
  if (copy.find('\0') != copy.npos) return false;
  char *end = nullptr;
  *value = strtod_l(copy.c_str(), &end, c_locale);
  return end == copy.c_str() + copy.size() && std::isfinite(*value);
}

bool stringtod(std::string_view text, double *value) {
  const std::string_view whole = text;
  const size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == text.npos) return false;
  text.remove_prefix(start);
  const bool negative = text[0] == '-';
  if (negative || text[0] == '+') text.remove_prefix(1);
  if (text.empty() || !(is_digit(text[0]) || text[0] == '.')) return false;  // so neither nan nor inf
  if (text.size() > 1 && text[0] == '0' && (text[1] | 0x20) == 'x') return strtod_whole(whole, value);
  const char *stop = text.data() + text.size();
  double magnitude;
  const auto [end, error] = std::from_chars(text.data(), stop, magnitude, std::chars_format::general);
  if (end != stop) return false;
  if (error == std::errc::result_out_of_range) return strtod_whole(whole, value);
  if (error != std::errc()) return false;
  *value = negative ? -magnitude : magnitude;
  return true;
}
