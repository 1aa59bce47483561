#include <fmt/format.h>

#include "util/io/time_text.h"

namespace util::time {

namespace {

constexpr std::string_view k_delimiters = ",()";

// The end of the variable that starts at `at`: behind its closing quote or slash, else at the delimiter.
size_t variable_end(std::string_view query, size_t at, bool category) {
  const std::string_view rest = query.substr(at);
  if (rest.starts_with("b\"")) {
    const size_t quote = rest.find('"', 2);
    return quote == std::string_view::npos ? query.size() : at + quote + 1;
  }
  if (rest.starts_with('/')) {
    for (size_t i = 1; i < rest.size(); ++i) {
      if (rest[i] == '\\')
        ++i;
      else if (rest[i] == '/')
        return at + i + 1;
    }
    return query.size();
  }
  const size_t end = query.find_first_of(category ? ",():" : k_delimiters, at);
  return end == std::string_view::npos ? query.size() : end;
}

std::string_view without_blanks_behind(std::string_view text) {
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

bool is_plain(std::string_view value) {
  return !value.starts_with("b\"") && !value.starts_with('/') && !value.starts_with("b/") &&
         value.find_first_of("*?") == std::string_view::npos;
}

int64_t floor_to_s(int64_t ms) {
  return ms / 1000 - (ms % 1000 < 0);
}

std::optional<std::string> absolute_range(std::string_view value, const clock_c &clock) {
  const auto range = string_to_epoch_range(value, clock);
  if (!range) return std::nullopt;
  const int64_t start = range->start_ms == k_no_time_ms ? 0 : floor_to_s(range->start_ms);
  const int64_t end =
      range->end_ms == k_no_time_ms ? static_cast<int64_t>(clock.now_s()) : floor_to_s(range->end_ms);
  if (start < 0 || end < start) return std::nullopt;
  return fmt::format("{}-{}", start, end);
}

}  // namespace

std::optional<std::string> activity_query_replace(std::string_view query, const clock_c &clock) {
  std::string out;
  for (size_t at = 0; at < query.size();) {
    if (query[at] == ' ' || k_delimiters.find(query[at]) != std::string_view::npos) {
      out += query[at++];
      continue;
    }
    // A word, an operator's name or a category, and what follows its colon.
    size_t end = variable_end(query, at, true);
    const std::string_view category = without_blanks_behind(query.substr(at, end - at));
    out += query.substr(at, end - at);
    at = end;
    while (at < query.size() && query[at] == ' ') out += query[at++];
    if (at == query.size() || query[at] != ':') continue;
    out += query[at++];
    while (at < query.size() && query[at] == ' ') out += query[at++];
    end = variable_end(query, at, false);
    const std::string_view value = query.substr(at, end - at);
    if (category == "__activity" && is_plain(value)) {
      const auto replaced = absolute_range(value, clock);
      if (!replaced) return std::nullopt;
      out += *replaced;
    } else {
      out += value;
    }
    at = end;
  }
  return out;
}

}  // namespace util::time
