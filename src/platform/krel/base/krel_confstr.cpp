// Values of the configuration as text: durations, booleans, sizes, times.

#include <strings.h>

#include <charconv>
#include <chrono>
#include <limits>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"

struct krel_duration_units_t {
  uint64_t resolution_ns;
};

namespace {

using wide_t = unsigned __int128;

constexpr uint64_t k_ns_per_s = 1'000'000'000;
constexpr struct {
  std::string_view name;
  uint64_t ns;
} k_units[] = {
    {"ns", 1},
    {"us", 1000},
    {"ms", 1'000'000},
    {"s", k_ns_per_s},
    {"sec", k_ns_per_s},
    {"m", 60 * k_ns_per_s},
    {"min", 60 * k_ns_per_s},
    {"h", 3600 * k_ns_per_s},
    {"hr", 3600 * k_ns_per_s},
    {"d", 86400 * k_ns_per_s},
    {"w", 7 * 86400 * k_ns_per_s},
    {"y", 365 * 86400 * k_ns_per_s},
};

uint64_t unit_ns(std::string_view name) {
  for (const auto &unit : k_units)
    if (unit.name == name) return unit.ns;
  return 0;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

void skip_blanks(std::string_view *text) {
  size_t n = text->find_first_not_of(" \t\r\n");
  text->remove_prefix(n == std::string_view::npos ? text->size() : n);
}

// Takes leading digits off the text.
bool take_uint64(std::string_view *text, uint64_t *out) {
  auto [rest, error] = std::from_chars(text->data(), text->data() + text->size(), *out);
  if (error != std::errc()) return false;
  text->remove_prefix(static_cast<size_t>(rest - text->data()));
  return true;
}

// Exactly `digits` digits.
bool take_digits(std::string_view *text, size_t digits, int *out) {
  if (text->size() < digits) return false;
  int value = 0;
  for (size_t i = 0; i < digits; i++) {
    char c = (*text)[i];
    if (!is_digit(c)) return false;
    value = value * 10 + (c - '0');
  }
  text->remove_prefix(digits);
  *out = value;
  return true;
}

bool take_char(std::string_view *text, std::string_view any_of) {
  if (text->empty() || any_of.find(text->front()) == std::string_view::npos) return false;
  text->remove_prefix(1);
  return true;
}

// ".ddd": microseconds, what is finer cut off. Without a point 0; a point needs a digit behind it.
bool take_fraction_us(std::string_view *text, int64_t *us) {
  *us = 0;
  if (!take_char(text, ".")) return true;
  if (text->empty() || !is_digit(text->front())) return false;
  for (int64_t scale = 100000; !text->empty() && is_digit(text->front()); scale /= 10) {
    *us += scale * (text->front() - '0');
    text->remove_prefix(1);
  }
  return true;
}

// "Z" or "+hh:mm", in minutes.
bool take_offset_min(std::string_view *text, int *minutes) {
  *minutes = 0;
  if (take_char(text, "Zz")) return true;
  bool behind = !text->empty() && text->front() == '-';
  int h, m;
  if (!take_char(text, "+-") || !take_digits(text, 2, &h) || !take_char(text, ":") || !take_digits(text, 2, &m))
    return false;
  if (h > 23 || m > 59) return false;
  *minutes = (behind ? -1 : 1) * (h * 60 + m);
  return true;
}

bool parse_rfc3339(std::string_view text, int64_t *since_1970_us) {
  int year, month, day, hour, minute, second, offset;
  int64_t fraction_us;
  if (!take_digits(&text, 4, &year) || !take_char(&text, "-") || !take_digits(&text, 2, &month) ||
      !take_char(&text, "-") || !take_digits(&text, 2, &day) || !take_char(&text, "Tt ") ||
      !take_digits(&text, 2, &hour) || !take_char(&text, ":") || !take_digits(&text, 2, &minute) ||
      !take_char(&text, ":") || !take_digits(&text, 2, &second) || !take_fraction_us(&text, &fraction_us) ||
      !take_offset_min(&text, &offset) || !text.empty())
    return false;
  std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                   std::chrono::day(static_cast<unsigned>(day))};
  // a second of 60 is a leap second: the clock shows the next minute's first second then
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return false;
  int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second - offset * 60;
  *since_1970_us = seconds * 1'000'000 + fraction_us;
  return true;
}

bool parse_decimal_seconds(std::string_view text, int64_t *since_1970_us) {
  constexpr uint64_t k_max_s = 253402300799;  // the last second of the year 9999
  bool negative = take_char(&text, "-");
  uint64_t seconds;
  int64_t fraction_us;
  if (!take_uint64(&text, &seconds) || seconds > k_max_s || !take_fraction_us(&text, &fraction_us) ||
      !text.empty())
    return false;
  int64_t us = static_cast<int64_t>(seconds) * 1'000'000 + fraction_us;
  *since_1970_us = negative ? -us : us;
  return true;
}

}  // namespace

const krel_duration_units_t *krel_get_durations_s() {
  static constexpr krel_duration_units_t units{k_ns_per_s};
  return &units;
}
const krel_duration_units_t *krel_get_durations_ms() {
  static constexpr krel_duration_units_t units{1'000'000};
  return &units;
}
const krel_duration_units_t *krel_get_durations_us() {
  static constexpr krel_duration_units_t units{1000};
  return &units;
}

bool krel_confstr_parse_duration(std::string_view text, const krel_duration_units_t *units, uint64_t *out) {
  wide_t sum = 0;
  skip_blanks(&text);
  if (text.empty()) return false;
  while (!text.empty()) {
    uint64_t count;
    if (!take_uint64(&text, &count)) return false;
    skip_blanks(&text);
    size_t letters = 0;
    while (letters < text.size() && text[letters] >= 'a' && text[letters] <= 'z') letters++;
    uint64_t ns = unit_ns(text.substr(0, letters));
    if (ns == 0) return false;
    text.remove_prefix(letters);
    skip_blanks(&text);
    wide_t term = static_cast<wide_t>(count) * ns;
    if (term % units->resolution_ns != 0) return false;
    sum += term / units->resolution_ns;
    if (sum > std::numeric_limits<uint64_t>::max()) return false;
  }
  *out = static_cast<uint64_t>(sum);
  return true;
}

bool krel_confstr_parse_boolean(std::string_view text, bool *out) {
  auto is_one_of = [text](std::initializer_list<std::string_view> words) {
    for (std::string_view word : words)
      if (word.size() == text.size() && strncasecmp(word.data(), text.data(), word.size()) == 0) return true;
    return false;
  };
  if (is_one_of({"true", "on", "yes", "1"})) {
    *out = true;
  } else if (is_one_of({"false", "off", "no", "0"})) {
    *out = false;
  } else {
    return false;
  }
  return true;
}

bool krel_confstr_parse_size(std::string_view text, uint64_t *bytes) {
  uint64_t count;
  if (!take_uint64(&text, &count)) return false;
  constexpr std::string_view k_letters = "KMGT";
  int shift = 0;
  if (!text.empty()) {
    char upper = text.front() >= 'a' ? static_cast<char>(text.front() - 'a' + 'A') : text.front();
    size_t letter = k_letters.find(upper);
    if (letter != std::string_view::npos) {
      shift = static_cast<int>(letter + 1) * 10;
      text.remove_prefix(1);
    }
  }
  if (!text.empty() && text != "B" && !(text == "iB" && shift > 0)) return false;
  if (shift > 0 && count > (std::numeric_limits<uint64_t>::max() >> shift)) return false;
  *bytes = count << shift;
  return true;
}

bool krel_confstr_parse_time_gm(std::string_view text, int64_t *since_1970_us) {
  if (text == "now") {
    *since_1970_us = static_cast<int64_t>(krel_now_us());
    return true;
  }
  return parse_rfc3339(text, since_1970_us) || parse_decimal_seconds(text, since_1970_us);
}
