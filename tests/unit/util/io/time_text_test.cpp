#include "util/io/time_text.h"

#include <gtest/gtest.h>

#include "support/fake_clock.h"

using namespace util::time;

namespace {

constexpr int64_t k_now = 1'700'000'000'500;

class time_text_test : public testing::Test {
 protected:
  fake_clock_c clock{static_cast<uint64_t>(k_now) * 1000};
  int64_t epoch(std::string_view text) { return string_to_epoch(text, clock); }
  std::optional<int64_t> expression(std::string_view text) { return duration_string_to_epoch(text, clock); }
  std::optional<std::pair<int64_t, int64_t>> range(std::string_view text) {
    const auto r = string_to_epoch_range(text, clock);
    return r ? std::optional(std::pair(r->start_ms, r->end_ms)) : std::nullopt;
  }
};

TEST_F(time_text_test, seconds_become_rounded_milliseconds) {
  EXPECT_EQ(epoch("1.5"), 1500);
  EXPECT_EQ(epoch("  now "), k_now);
  EXPECT_EQ(epoch("1700000000"), 1'700'000'000'000);
  EXPECT_EQ(epoch("0.0005"), 1);
  EXPECT_EQ(epoch("-2.25"), -2250);
  for (const char *text : {"", "  ", "x", "1x", "1 2", "nan", "inf", "-inf", "1e300", "+-1", "Now"})
    EXPECT_EQ(epoch(text), k_no_time_ms) << text;
}

TEST_F(time_text_test, a_base_and_signed_durations) {
  const int64_t hour = 3600000;
  EXPECT_EQ(expression("now - 1h"), k_now - hour);
  EXPECT_EQ(expression("-1h"), k_now - hour);
  EXPECT_EQ(expression("now"), k_now);
  EXPECT_EQ(expression(" 1600000000 + 5m "), 1'600'000'300'000);
  EXPECT_EQ(expression("1600000000.5-1d 12 h30m"), 1'600'000'000'500 - (36 * hour + hour / 2));
  EXPECT_EQ(expression(".5+1s"), 1500);
  EXPECT_EQ(expression("5."), 5000);
  for (const char *text :
       {"", " ", "-", "now-", "now -1", "1h", "now 1h", "now--1h", "now-1h-1h", "now-1parsec", "now-500ms",
        "now-1.5h", "x", "now+99999999999999999999s", "now-300000000y", "99999999999999999999", "9007199254741",
        "9007199254740+1d", "nownow"})
    EXPECT_EQ(expression(text), std::nullopt) << text;
}

TEST_F(time_text_test, ranges_split_at_the_dash_that_is_no_sign) {
  using pair_t = std::pair<int64_t, int64_t>;
  const int64_t hour = 3600000;
  EXPECT_EQ(range("1600000000-1600003600"), (pair_t{1'600'000'000'000, 1'600'003'600'000}));
  EXPECT_EQ(range("now-1d-now"), (pair_t{k_now - 24 * hour, k_now}));
  EXPECT_EQ(range("now - 1d - now - 1h"), (pair_t{k_now - 24 * hour, k_now - hour}));
  EXPECT_EQ(range("-2h--1h"), (pair_t{k_now - 2 * hour, k_now - hour}));
  EXPECT_EQ(range("now-1h"), (pair_t{k_now - hour, k_no_time_ms}));
  EXPECT_EQ(range("1600000000-"), (pair_t{1'600'000'000'000, k_no_time_ms}));
  EXPECT_EQ(range("-1600003600"), (pair_t{k_no_time_ms, 1'600'003'600'000}));
  EXPECT_EQ(range("1600000000-now"), (pair_t{1'600'000'000'000, k_now}));
  for (const char *text : {"", "-", "--", "now-1h-2h", "1600003600-1600000000", "now..now", "a-b", "1-2-3"})
    EXPECT_EQ(range(text), std::nullopt) << text;
}

TEST_F(time_text_test, activity_values_become_seconds_and_the_rest_is_copied) {
  const auto replaced = [&](std::string_view query) {
    return activity_query_replace(query, clock).value_or("(error)");
  };
  EXPECT_EQ(replaced("and(__activity:now-1h-now,a:b)"), "and(__activity:1699996400-1700000000,a:b)");
  EXPECT_EQ(replaced("__activity : 1600000000 - 1600000001"), "__activity : 1600000000-1600000001");
  EXPECT_EQ(replaced("or(not(__activity:-1600000000),__activity:1650000000)"),
            "or(not(__activity:0-1600000000),__activity:1650000000-1700000000)");
  for (const char *same :
       {"and(a:b, c)", "and(x__activity:now)", "and(a:__activity:now)", "and(a:/,__activity:z/,b)",
        "and(a:/x\\/,__activity:z/)", "and(b\"X19hY3Rpdml0eQ==\":now)", "and(__activity:*)", "and(__activity)",
        "__activity:/now/", "a:b\"YSxfX2FjdGl2aXR5Onpa\"", "and(a:b", "\xff(", ""})
    EXPECT_EQ(replaced(same), same);
  for (const char *bad : {"__activity:", "and(__activity:yesterday)", "__activity:1700000000-1600000000"})
    EXPECT_EQ(replaced(bad), "(error)") << bad;
}

}  // namespace
