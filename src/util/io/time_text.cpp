#include "util/io/time_text.h"

#include <charconv>
#include <cmath>

#include "platform/krel/base/krel_conf.h"

namespace util::time {

namespace {

// Times beyond what a double counts in whole milliseconds (some 285,000 years) are refused.
constexpr int64_t k_max_ms = int64_t{1} << 53;

bool is_blank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_unit(char c) {
  return c >= 'a' && c <= 'z';
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

size_t skip_blanks(std::string_view text, size_t at) {
  while (at < text.size() && is_blank(text[at])) ++at;
  return at;
}

// A whole text as seconds, rounded to milliseconds.
std::optional<int64_t> seconds_to_ms(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  const double ms = std::round(seconds * 1000.0);
  if (!(std::abs(ms) <= static_cast<double>(k_max_ms))) return std::nullopt;
  return static_cast<int64_t>(ms);
}

// "now" or an unsigned decimal number at the text's start. `end` is behind it, 0 when there is none.
std::optional<int64_t> scan_base(std::string_view text, int64_t now_ms, size_t *end) {
  *end = 0;
  if (text.starts_with("now")) {
    *end = 3;
    return now_ms;
  }
  size_t at = 0, digits = 0;
  for (bool dot = false; at < text.size() && (is_digit(text[at]) || (text[at] == '.' && !dot)); ++at) {
    if (text[at] == '.')
      dot = true;
    else
      ++digits;
  }
  if (digits == 0) return std::nullopt;
  *end = at;
  return seconds_to_ms(text.substr(0, at));
}

// A sign and one or more durations at the text's start; 0 for `end` when it holds none.
std::optional<int64_t> scan_signed_durations(std::string_view text, size_t *end) {
  *end = 0;
  if (text.empty() || (text[0] != '+' && text[0] != '-')) return std::nullopt;
  std::string terms;
  for (size_t at = skip_blanks(text, 1);; at = skip_blanks(text, at)) {
    const size_t number = at;
    while (at < text.size() && is_digit(text[at])) ++at;
    const size_t number_end = at;
    at = skip_blanks(text, at);
    const size_t unit = at;
    while (at < text.size() && is_unit(text[at])) ++at;
    if (number_end == number || at == unit) break;
    terms += text.substr(number, number_end - number);
    terms += text.substr(unit, at - unit);
    *end = at;
  }
  uint64_t seconds = 0;
  if (*end == 0 || !krel_confstr_parse_duration(terms, krel_get_durations_s(), &seconds)) return std::nullopt;
  if (seconds > k_max_ms / 1000) return std::nullopt;
  const int64_t ms = static_cast<int64_t>(seconds) * 1000;
  return text[0] == '-' ? -ms : ms;
}

struct scanned_t {
  int64_t ms;
  size_t end;  // behind the expression and the blanks after it
};

// An expression at the text's start: with its durations, or the base alone.
std::optional<scanned_t> scan_expression(std::string_view text, int64_t now_ms, bool with_durations) {
  size_t at = skip_blanks(text, 0), size = 0;
  const auto base = scan_base(text.substr(at), now_ms, &size);
  if (size > 0 && !base) return std::nullopt;
  at = skip_blanks(text, at + size);
  if (!with_durations) return base ? std::optional(scanned_t{*base, at}) : std::nullopt;
  const auto shift = scan_signed_durations(text.substr(at), &size);
  if (!shift) return std::nullopt;
  const int64_t ms = base.value_or(now_ms) + *shift;  // both within k_max_ms
  if (std::abs(ms) > k_max_ms) return std::nullopt;
  return scanned_t{ms, skip_blanks(text, at + size)};
}

std::optional<int64_t> whole_expression(std::string_view text, int64_t now_ms) {
  for (const bool with_durations : {true, false}) {
    const auto scanned = scan_expression(text, now_ms, with_durations);
    if (scanned && scanned->end == text.size()) return scanned->ms;
  }
  return std::nullopt;
}

int64_t now_ms_of(const clock_c &clock) {
  return static_cast<int64_t>(clock.now_ms());
}

std::optional<epoch_range_t> scan_range(std::string_view text, int64_t now_ms) {
  for (const bool with_durations : {true, false}) {
    const auto start = scan_expression(text, now_ms, with_durations);
    if (!start) continue;
    const std::string_view rest = text.substr(start->end);
    if (rest.empty() || rest == "-") return epoch_range_t{start->ms, k_no_time_ms};
    if (rest[0] != '-') continue;
    if (const auto end = whole_expression(rest.substr(1), now_ms)) return epoch_range_t{start->ms, *end};
  }
  if (!text.starts_with('-')) return std::nullopt;
  const auto end = whole_expression(text.substr(1), now_ms);
  return end ? std::optional(epoch_range_t{k_no_time_ms, *end}) : std::nullopt;
}

}  // namespace

int64_t string_to_epoch(std::string_view text, const clock_c &clock) {
  text = trim(text);
  if (text == "now") return now_ms_of(clock);
  return seconds_to_ms(text).value_or(k_no_time_ms);
}

std::optional<int64_t> duration_string_to_epoch(std::string_view text, const clock_c &clock) {
  return whole_expression(text, now_ms_of(clock));
}

std::optional<epoch_range_t> string_to_epoch_range(std::string_view text, const clock_c &clock) {
  const auto range = scan_range(trim(text), now_ms_of(clock));
  if (!range) return std::nullopt;
  const bool both = range->start_ms != k_no_time_ms && range->end_ms != k_no_time_ms;
  if (both && range->end_ms < range->start_ms) return std::nullopt;
  return range;
}

}  // namespace util::time
