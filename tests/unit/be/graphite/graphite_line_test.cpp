#include "be/graphite/graphite_line.h"

#include <gtest/gtest.h>

#include <string>

namespace be::graphite {
namespace {

constexpr uint64_t NOW_MS = 1500000100000;
constexpr double TWO_TO_64 = 18446744073709551616.0;

line_t good(const std::string &text) {
  line_t line{};
  EXPECT_EQ(parse_line(text, NOW_MS, &line), line_fault_e::none) << text;
  return line;
}
line_fault_e fault(const std::string &text) {
  line_t line;
  return parse_line(text, NOW_MS, &line);
}

TEST(graphite_line, integers_keep_their_sign_and_their_64_bits) {
  EXPECT_EQ(good("foo 1 1500000000").value.type, VELMAR_METRIC_UINT64);
  EXPECT_EQ(good("foo 1 1500000000").value.storage.v_uint64, 1U);
  EXPECT_EQ(good("foo 18446744073709551615 1500000000").value.storage.v_uint64, UINT64_MAX);
  EXPECT_EQ(good("foo 007 1500000000").value.storage.v_uint64, 7U);
  EXPECT_EQ(good("foo -1 1500000000").value.type, VELMAR_METRIC_INT64);
  EXPECT_EQ(good("foo -1 1500000000").value.storage.v_int64, -1);
  EXPECT_EQ(good("foo -9223372036854775808 1500000000").value.storage.v_int64, INT64_MIN);
}

TEST(graphite_line, every_other_number_is_a_double) {
  const std::pair<const char *, double> cases[] = {
      {"1.0", 1},        {"18446744073709551616", TWO_TO_64},
      {"1e3", 1000},     {"-9223372036854775809", -9223372036854775808.0},
      {"-.5", -0.5},     {"5.", 5},
      {"+5", 5},         {"0x10", 16},
      {"-2.5E-1", -0.25}};
  for (const auto &[text, number] : cases) {
    const line_t line = good(std::string("foo ") + text + " 1500000000");
    EXPECT_EQ(line.value.type, VELMAR_METRIC_DOUBLE) << text;
    EXPECT_EQ(line.value.storage.v_double, number) << text;
  }
}

TEST(graphite_line, values_that_are_none) {
  for (const char *text : {"", "-", "nan", "NaN", "inf", "-Infinity", "x", ".", "e"})
    EXPECT_EQ(fault(std::string("foo ") + text + " 1500000000"), line_fault_e::no_digits) << text;
  for (const char *text :
       {"1e400", "-1e400", "1.2.3", "1,5", "5-", "--5", "1e", "nan(1)", "inf1", "12abc", "1_0"})
    EXPECT_EQ(fault(std::string("foo ") + text + " 1500000000"), line_fault_e::bad_value) << text;
}

TEST(graphite_line, the_nearer_of_space_and_tab_separates) {
  EXPECT_EQ(good("foo\t1 1500000000").name, "foo");
  EXPECT_EQ(good("foo 1\t1500000000").value.storage.v_uint64, 1U);
  EXPECT_EQ(good("foo\t1\t1500000000").time_ms, 1500000000000U);
  EXPECT_EQ(good("a\t5 1500000000 x").name, "a") << "else the name would hold a tab";
  EXPECT_EQ(fault("foo"), line_fault_e::no_first_separator);
  EXPECT_EQ(fault(""), line_fault_e::no_first_separator);
  EXPECT_EQ(fault("foo 1"), line_fault_e::no_second_separator);
  EXPECT_EQ(fault("foo\t"), line_fault_e::no_second_separator);
  // one separator between two parts: of two in a row the second ends an empty value
  EXPECT_EQ(fault("foo  1500000000"), line_fault_e::no_digits);
}

TEST(graphite_line, times) {
  EXPECT_EQ(good("foo 1 1500000000.25").time_ms, 1500000000250U);
  EXPECT_EQ(good("foo 1 1500000000000").time_ms, 1500000000000U) << "milliseconds";
  EXPECT_EQ(good("foo 1 1500000000\r").time_ms, 1500000000000U) << "what follows a time is not looked at";
  for (const char *text : {"", "soon", "-1", "100", "0", "1150000000", "99999999999999999999999"})
    EXPECT_EQ(fault(std::string("foo 1 ") + text), line_fault_e::too_old) << text;
  EXPECT_EQ(fault("foo 1 1850000000"), line_fault_e::too_new);
}

TEST(graphite_line, a_name_is_shorter_than_4096_bytes) {
  EXPECT_EQ(good(std::string(4095, 'n') + " 1 1500000000").name.size(), 4095U);
  EXPECT_EQ(fault(std::string(4096, 'n') + " 1 1500000000"), line_fault_e::name_too_long);
}

TEST(graphite_line, the_first_fault_is_told) {
  EXPECT_EQ(fault(std::string(4096, 'n') + " 1"), line_fault_e::name_too_long);
  EXPECT_EQ(fault("foo nan 100"), line_fault_e::too_old);
}

TEST(graphite_line, names_become_the_names_of_metrics) {
  const std::pair<const char *, const char *> cases[] = {
      {"foo", "foo"},
      {"foo;a=b;c=d", "foo|ST[a:b,c:d]"},
      {"foo;a=b;junk;c=d", "foo|ST[a:b,c:d]"},
      {"foo;junk", "foo|ST[]"},
      {"foo;", "foo|ST[]"},
      {";a=b", "|ST[a:b]"},
      {"foo;a=b=c", "foo|ST[a:b=c]"},
      {"foo;;a=;=b;", "foo|ST[a:,:b]"},
  };
  std::string out = "left over";
  for (const auto &[sent, metric] : cases) {
    rewrite_name(sent, &out);
    EXPECT_EQ(out, metric) << sent;
    EXPECT_EQ(name_has_tags(sent), std::string(sent).find(';') != std::string::npos);
  }
}

}  // namespace
}  // namespace be::graphite
