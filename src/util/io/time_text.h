#pragma once
// Times as people write them in queries and headers. All results in milliseconds since 1970; no function
// throws or overflows, whatever the text. "now" is the clock's time.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/krel/base/krel_clock.h"

namespace util::time {

// What an end that is not given, or a text that is no time, stands at.
inline constexpr int64_t k_no_time_ms = 1000000000;

// "now" or a number of seconds with an optional fraction, blanks around: "1.5" is 1500. Rounds to the
// nearest millisecond. Anything else is k_no_time_ms.
int64_t string_to_epoch(std::string_view text, const clock_c &clock = krel_system_clock());

// An expression: a base ("now" or a number of seconds), a signed duration after it, or both:
// "now - 1h", "1600000000 + 5m 30s", "-1d" (from now). The sign holds for all the durations behind it.
// None when the text is no expression.
std::optional<int64_t> duration_string_to_epoch(std::string_view text,
                                                const clock_c &clock = krel_system_clock());

struct epoch_range_t {
  int64_t start_ms = k_no_time_ms;
  int64_t end_ms = k_no_time_ms;
};
// START "-" END, each an expression or left out: "now-1d - now-1h", "1600000000-1600003600", "-1h" (an
// open end), "1600000000-" (the same), "-1600003600" (an open start). The start is the longest expression
// that leaves an end or nothing. None when the text is no range, or its end lies before its start.
std::optional<epoch_range_t> string_to_epoch_range(std::string_view text,
                                                   const clock_c &clock = krel_system_clock());

// A tag query with every plain value of the category __activity, a range as above, replaced by whole
// seconds "START-END"; an open start becomes 0 and an open end now. Exact (b"..."), pcre (/.../) and glob
// values and all other text are copied. None when a plain value is no range.
std::optional<std::string> activity_query_replace(std::string_view query,
                                                  const clock_c &clock = krel_system_clock());

}  // namespace util::time
