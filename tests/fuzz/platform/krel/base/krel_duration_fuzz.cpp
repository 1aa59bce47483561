// Durations, sizes, booleans, times and numbers of the configuration.

#include <string_view>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view text(reinterpret_cast<const char *>(data), size);
  uint64_t s, ms, us, bytes, u;
  int64_t when, i;
  double d;
  bool b;
  bool in_s = krel_confstr_parse_duration(text, krel_get_durations_s(), &s);
  bool in_ms = krel_confstr_parse_duration(text, krel_get_durations_ms(), &ms);
  bool in_us = krel_confstr_parse_duration(text, krel_get_durations_us(), &us);
  // what a coarse resolution takes, a finer one takes as the same time, unless it overflows
  if (in_s && s <= UINT64_MAX / 1000 && (!in_ms || ms != s * 1000)) __builtin_trap();
  if (in_ms && ms <= UINT64_MAX / 1000 && (!in_us || us != ms * 1000)) __builtin_trap();
  krel_confstr_parse_size(text, &bytes);
  krel_confstr_parse_boolean(text, &b);
  krel_confstr_parse_time_gm(text, &when);
  krel_parse_int64(text, &i);
  krel_parse_uint64(text, &u);
  krel_parse_double(text, &d);
  return 0;
}
