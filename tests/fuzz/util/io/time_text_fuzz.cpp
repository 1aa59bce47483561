// Time expressions and activity queries: no text may crash, overflow or be read past its end, and what is
// replaced must itself be a query that replaces to itself.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "util/io/time_text.h"

namespace {
class fixed_clock_c final : public clock_c {
 public:
  uint64_t now_us() const override { return 1'700'000'000'500'000; }
  uint64_t monotonic_us() const override { return 0; }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fixed_clock_c clock;
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  util::time::string_to_epoch(text, clock);
  util::time::duration_string_to_epoch(text, clock);
  const auto range = util::time::string_to_epoch_range(text, clock);
  if (range && range->start_ms != util::time::k_no_time_ms && range->end_ms != util::time::k_no_time_ms &&
      range->end_ms < range->start_ms)
    abort();
  const auto replaced = util::time::activity_query_replace(text, clock);
  if (replaced && util::time::activity_query_replace(*replaced, clock) != replaced) abort();
  return 0;
}
