#include <gtest/gtest.h>

#include <optional>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"

namespace {

std::optional<uint64_t> duration(const char *text, const krel_duration_units_t *units) {
  uint64_t value = 0;
  if (!krel_confstr_parse_duration(text, units, &value)) return std::nullopt;
  return value;
}
std::optional<uint64_t> size(const char *text) {
  uint64_t value = 0;
  if (!krel_confstr_parse_size(text, &value)) return std::nullopt;
  return value;
}
std::optional<int64_t> time_us(const char *text) {
  int64_t value = 0;
  if (!krel_confstr_parse_time_gm(text, &value)) return std::nullopt;
  return value;
}

TEST(krel_confstr_test, durations_are_summed_in_the_callers_resolution) {
  const auto *s = krel_get_durations_s(), *ms = krel_get_durations_ms(), *us = krel_get_durations_us();
  EXPECT_EQ(duration("8hr", s), 8u * 3600);
  EXPECT_EQ(duration("4w", s), 4u * 7 * 86400);
  EXPECT_EQ(duration("1d12h", s), 129600u);
  EXPECT_EQ(duration(" 1d 12 h ", s), 129600u);
  EXPECT_EQ(duration("1y1w1d1h1m1s", s), (365u + 7 + 1) * 86400 + 3600 + 60 + 1);
  EXPECT_EQ(duration("2min3sec", ms), 123000u);
  EXPECT_EQ(duration("1s500ms", ms), 1500u);
  EXPECT_EQ(duration("3000ms", s), 3u);
  EXPECT_EQ(duration("5000ns", us), 5u);
  EXPECT_EQ(duration("0s", s), 0u);
  for (const char *bad : {"", " ", "5", "s", "1500ms", "1d500ms", "-1s", "+1s", "1.5s", "5S", "5x", "5mins",
                          "1d12", "s1", "99999999999999999999s", "20000000000000000y"})
    EXPECT_EQ(duration(bad, s), std::nullopt) << bad;
  EXPECT_EQ(duration("500us", ms), std::nullopt);
  EXPECT_EQ(duration("18446744073709551615s", s), UINT64_MAX);
  EXPECT_EQ(duration("18446744073709551615s1s", s), std::nullopt);
  EXPECT_EQ(duration("18446744073709551615s", ms), std::nullopt);
}

TEST(krel_confstr_test, sizes_are_powers_of_1024) {
  EXPECT_EQ(size("0"), 0u);
  EXPECT_EQ(size("4096"), 4096u);
  EXPECT_EQ(size("4096B"), 4096u);
  EXPECT_EQ(size("64K"), 65536u);
  EXPECT_EQ(size("64kB"), 65536u);
  EXPECT_EQ(size("2MiB"), 2u << 20);
  EXPECT_EQ(size("1G"), 1u << 30);
  EXPECT_EQ(size("3T"), 3ull << 40);
  EXPECT_EQ(size("16777215T"), 16777215ull << 40);
  for (const char *bad :
       {"", "K", "-1", "1.5K", "1 K", "1P", "1iB", "1Ki", "1KBB", "16777216T", "18446744073709551616"})
    EXPECT_EQ(size(bad), std::nullopt) << bad;
}

TEST(krel_confstr_test, booleans_are_eight_words_of_any_case) {
  for (const char *word : {"true", "on", "yes", "1", "TRUE", "On", "yEs"}) {
    bool value = false;
    EXPECT_TRUE(krel_confstr_parse_boolean(word, &value) && value) << word;
  }
  for (const char *word : {"false", "off", "no", "0", "False", "OFF"}) {
    bool value = true;
    EXPECT_TRUE(krel_confstr_parse_boolean(word, &value) && !value) << word;
  }
  bool value;
  for (const char *bad : {"", "maybe", "tru", "truee", "10", " on", "y"})
    EXPECT_FALSE(krel_confstr_parse_boolean(bad, &value)) << bad;
}

TEST(krel_confstr_test, times_are_rfc3339_or_seconds) {
  constexpr int64_t k_noon_us = 1769860800'000000;  // 2026-01-31T12:00:00Z
  EXPECT_EQ(time_us("2026-01-31T12:00:00Z"), k_noon_us);
  EXPECT_EQ(time_us("2026-01-31t13:30:00.25+01:30"), k_noon_us + 250000);
  EXPECT_EQ(time_us("2026-01-30T23:00:00.1234569-13:00"), k_noon_us + 123456);
  EXPECT_EQ(time_us("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(time_us("1969-12-31T23:59:59.5Z"), -500000);
  EXPECT_EQ(time_us("2024-02-29T00:00:00Z"), 1709164800'000000);
  EXPECT_EQ(time_us("2016-12-31T23:59:60Z"), 1483228800'000000);
  EXPECT_EQ(time_us("1769860800"), k_noon_us);
  EXPECT_EQ(time_us("1769860800.000001"), k_noon_us + 1);
  EXPECT_EQ(time_us("-0.5"), -500000);
  for (const char *bad :
       {"", "2026-01-31", "2026-01-31T12:00:00", "2026-02-29T00:00:00Z", "2026-13-01T00:00:00Z",
        "2026-01-31T24:00:00Z", "2026-01-31T12:60:00Z", "2026-01-31T12:00:61Z", "2026-01-31T12:00:00.Z",
        "2026-01-31T12:00:00+1:00", "2026-01-31T12:00:00+24:00", "2026-01-31T12:00:00Zx", "1.", ".5", "1e9",
        "99999999999999", "Now", "--1"})
    EXPECT_EQ(time_us(bad), std::nullopt) << bad;
  auto before = static_cast<int64_t>(krel_now_us());
  std::optional<int64_t> now = time_us("now");
  ASSERT_TRUE(now);
  EXPECT_GE(*now, before);
}

}  // namespace
