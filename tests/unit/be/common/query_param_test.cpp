#include "be/common/query_param.h"

#include <gtest/gtest.h>

#include "be/common/ingestion_path.h"

namespace {

using namespace velmar_be_common;

template <typename T>
std::optional<T> parse(const parser_c<T> &parser, const char *text) {
  T value{};
  return parser.parse(text, &value) ? std::optional<T>(value) : std::nullopt;
}

TEST(parsers, seconds_with_exactly_three_digits_of_milliseconds) {
  const auto &p = get_timestamp_s_ms_parser();
  EXPECT_EQ(parse(p, "1700000000"), 1700000000000U);
  EXPECT_EQ(parse(p, "1700000000.123"), 1700000000123U);
  for (const char *bad : {"", ".123", "1.", "1.1", "1.1234", "1.12a", "-1", "1 ", "18446744073709551615"})
    EXPECT_FALSE(parse(p, bad)) << bad;
}

TEST(parsers, whole_numbers_use_the_whole_text) {
  EXPECT_EQ(parse(get_uint64_parser(), "18446744073709551615"), UINT64_MAX);
  for (const char *bad : {"", "18446744073709551616", "+1", "0x10", "1 ", " 1", "-0"})
    EXPECT_FALSE(parse(get_uint64_parser(), bad)) << bad;
}

TEST(parsers, times_and_durations_follow_the_configurations_grammar) {
  EXPECT_EQ(parse(get_time_gm_ms_parser(), "1970-01-01T00:00:01.5Z"), 1500U);
  EXPECT_EQ(parse(get_time_gm_s_parser(), "1970-01-01T01:00:00+01:00"), 0U);
  EXPECT_FALSE(parse(get_time_gm_s_parser(), "1969-12-31T23:59:59Z"));
  EXPECT_EQ(parse(get_duration_s_parser(), "1d12h"), 129600U);
  EXPECT_EQ(parse(get_duration_ms_parser(), "250ms"), 250U);
  EXPECT_FALSE(parse(get_duration_s_parser(), "250ms"));
  EXPECT_FALSE(parse(get_duration_s_parser(), "60"));
}

TEST(ingestion_paths, all_stands_for_the_three) {
  using namespace be::common;
  EXPECT_TRUE(is_ingestion_path_enabled(ingestion_path_e::all));
  set_ingestion_path_enabled(ingestion_path_e::raw, false);
  EXPECT_EQ(get_disabled_ingestion_paths(), std::unordered_set<ingestion_path_e>{ingestion_path_e::raw});
  EXPECT_FALSE(is_ingestion_path_enabled(ingestion_path_e::all));
  set_ingestion_path_enabled(ingestion_path_e::all, false);
  EXPECT_EQ(get_disabled_ingestion_paths().size(), 3U);
  set_ingestion_path_enabled(static_cast<ingestion_path_e>(9), true);
  EXPECT_EQ(get_disabled_ingestion_paths().size(), 3U);
  EXPECT_FALSE(is_ingestion_path_enabled(static_cast<ingestion_path_e>(9)));
  set_ingestion_path_enabled(ingestion_path_e::all, true);
  EXPECT_TRUE(get_disabled_ingestion_paths().empty());
}

}  // namespace
