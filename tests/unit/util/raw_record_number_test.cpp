#include "util/raw_record_number.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>

namespace {

// Signed result, digits taken and whether errno was raised.
std::string ll(std::string_view text) {
  const char *end;
  errno = 0;
  const long long value = stringtoll(text.data(), text.size(), &end);
  return std::to_string(value) + " " + std::to_string(end - text.data()) + (errno == ERANGE ? " range" : "");
}
std::string ull(std::string_view text) {
  const char *end;
  errno = 0;
  const unsigned long long value = stringtoull(text.data(), text.size(), &end);
  return std::to_string(value) + " " + std::to_string(end - text.data()) + (errno == ERANGE ? " range" : "");
}

}  // namespace

TEST(Numbers, IntegersStopAtTheirBounds) {
  EXPECT_EQ(ll("12a"), "12 2");
  EXPECT_EQ(ll("-12"), "-12 3");
  EXPECT_EQ(ll("-"), "0 0");
  EXPECT_EQ(ll(""), "0 0");
  EXPECT_EQ(ll("+1"), "0 0");
  EXPECT_EQ(ll(" 1"), "0 0");
  EXPECT_EQ(ll("9223372036854775807"), "9223372036854775807 19");
  EXPECT_EQ(ll("9223372036854775808"), "9223372036854775807 18 range");
  EXPECT_EQ(ll("-9223372036854775808"), "-9223372036854775808 20");
  EXPECT_EQ(ll("-9223372036854775809"), "-9223372036854775808 19 range");
  EXPECT_EQ(ll("00000000000000000000000007"), "7 26");
  EXPECT_EQ(ull("18446744073709551615"), "18446744073709551615 20");
  EXPECT_EQ(ull("18446744073709551616"), "18446744073709551615 19 range");
  EXPECT_EQ(ull("184467440737095516150"), "18446744073709551615 20 range");
  EXPECT_EQ(ull("-1"), "0 0");
  EXPECT_EQ(ull(std::string_view("123", 2)), "12 2");  // what follows is not looked at
}

// Pieces of numbers thrown together: whatever the library's own parser takes whole and finite is taken, with
// the same bits, and nothing else.
TEST(Numbers, DoublesAgreeWithStrtod) {
  static const char *const pieces[] = {
      "0",   "1",    "9",   "42",  "00",     ".",     "-",     "+",    "e",
      "E",   "5",    "x",   "X",   "p",      "P",     " ",     "\t",   "\v",
      "inf", "nan",  "f",   "a",   "e-3",    "e+308", "e-320", "e400", "123456789012345678901234567890",
      "0x",  "0x.8", ".25", "1e5", "nan(1)", "_"};
  const uint32_t seed = 3;
  std::mt19937 random(seed);
  int taken = 0;
  for (int i = 0; i < 200000; i++) {
    std::string text;
    for (unsigned k = 1 + random() % 4; k > 0; k--) text += pieces[random() % std::size(pieces)];
    char *end;
    const double want = strtod(text.c_str(), &end);
    const bool wanted = *end == 0 && end != text.c_str() && std::isfinite(want);
    double got = 0;
    ASSERT_EQ(stringtod(text, &got), wanted) << '"' << text << "\" seed " << seed;
    if (!wanted) continue;
    taken++;
    ASSERT_EQ(memcmp(&got, &want, sizeof got), 0) << '"' << text << "\" seed " << seed;
  }
  EXPECT_GT(taken, 10000);
}

TEST(Numbers, PrintedDoublesComeBack) {
  const uint32_t seed = 5;
  std::mt19937_64 random(seed);
  for (int i = 0; i < 100000; i++) {
    const uint64_t bits = random();
    double want, got;
    memcpy(&want, &bits, sizeof want);
    if (!std::isfinite(want)) continue;
    char text[64];
    snprintf(text, sizeof text, i % 2 ? "%.17g" : "%a", want);
    ASSERT_TRUE(stringtod(text, &got)) << text;
    ASSERT_EQ(memcmp(&got, &want, sizeof got), 0) << text << " seed " << seed;
  }
}
