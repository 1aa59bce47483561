// Bins of numbers, against what strtod says of the bins' texts.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

#include "platform/tolvllhist/tolvllhist.h"

namespace {

std::string text_of(hist_bucket_t bucket) {
  char text[HIST_BUCKET_TEXT_SIZE];
  EXPECT_GT(hist_bucket_to_string(bucket, text, sizeof text), 0);
  return text;
}

bool operator==(hist_bucket_t a, hist_bucket_t b) {
  return a.val == b.val && a.exp == b.exp;
}

constexpr hist_bucket_t NAN_BUCKET = {-1, 0};

// The bin's edges by the C library, from the decimal texts.
void expect_holds(hist_bucket_t bucket, double x) {
  const int val = std::abs(bucket.val);
  const double inner = strtod((std::to_string(val) + "e" + std::to_string(bucket.exp - 1)).c_str(), nullptr);
  const double outer =
      strtod((std::to_string(val + 1) + "e" + std::to_string(bucket.exp - 1)).c_str(), nullptr);
  ASSERT_TRUE(hist_bucket_is_valid(bucket)) << x;
  ASSERT_EQ(std::signbit(x), bucket.val < 0) << x;
  ASSERT_LE(inner, std::fabs(x)) << text_of(bucket);
  ASSERT_LT(std::fabs(x), outer) << text_of(bucket);
}

TEST(hist_bins, every_bin_holds_its_text_and_the_numbers_around_its_edges) {
  for (int exp = -128; exp <= 127; ++exp) {
    for (int val = 10; val <= 99; ++val) {
      for (int sign : {1, -1}) {
        const hist_bucket_t bucket = {static_cast<int8_t>(sign * val), static_cast<int8_t>(exp)};
        const double edge = strtod(text_of(bucket).c_str(), nullptr);
        ASSERT_TRUE(hist_bucket_from_double(edge) == bucket) << text_of(bucket);
        ASSERT_EQ(edge, sign > 0 ? hist_bucket_lower(bucket) : hist_bucket_upper(bucket));
        const double far = sign > 0 ? hist_bucket_upper(bucket) : hist_bucket_lower(bucket);
        ASSERT_TRUE(hist_bucket_from_double(std::nextafter(far, 0)) == bucket) << text_of(bucket);
        ASSERT_FALSE(hist_bucket_from_double(far) == bucket) << text_of(bucket);
        const double middle = hist_bucket_midpoint(bucket);
        const std::string decimal = std::to_string(sign * val) + "5e" + std::to_string(exp - 2);
        ASSERT_EQ(middle, strtod(decimal.c_str(), nullptr));
      }
    }
  }
}

TEST(hist_bins, any_double_lies_between_its_bins_edges) {
  std::mt19937_64 random(20240607);
  for (int i = 0; i < 300000; ++i) {
    const double x = std::bit_cast<double>(random());
    const double size = std::fabs(x);
    const hist_bucket_t bucket = hist_bucket_from_double(x);
    if (std::isnan(x) || size >= 1e128) {
      ASSERT_TRUE(bucket == NAN_BUCKET) << x;
    } else if (size < 1e-128) {
      ASSERT_TRUE((bucket == hist_bucket_t{0, 0})) << x;
    } else {
      ASSERT_NO_FATAL_FAILURE(expect_holds(bucket, x));
    }
  }
  // Numbers as people write them: few digits, edges among them.
  for (int i = 0; i < 300000; ++i) {
    const std::string text =
        std::to_string(random() % 2000 + 1) + "e" + std::to_string(static_cast<int>(random() % 60) - 30);
    const double x = strtod(text.c_str(), nullptr);
    ASSERT_NO_FATAL_FAILURE(expect_holds(hist_bucket_from_double(x), x)) << text;
  }
}

TEST(hist_bins, ends_of_the_range) {
  const double inf = std::numeric_limits<double>::infinity();
  for (double x : {inf, -inf, std::numeric_limits<double>::quiet_NaN(), 1e128, -1e128, 1e300})
    EXPECT_TRUE(hist_bucket_from_double(x) == NAN_BUCKET) << x;
  for (double x : {0.0, -0.0, 5e-324, -1e-308, std::nextafter(1e-128, 0)})
    EXPECT_TRUE((hist_bucket_from_double(x) == hist_bucket_t{0, 0})) << x;
  EXPECT_TRUE((hist_bucket_from_double(1e-128) == hist_bucket_t{10, -128}));
  EXPECT_TRUE((hist_bucket_from_double(-std::nextafter(1e128, 0)) == hist_bucket_t{-99, 127}));
}

TEST(hist_bins, scaled_integers_go_by_their_digits) {
  std::mt19937_64 random(7);
  const auto expect = [](int64_t value, int scale) {
    std::string digits = std::to_string(value);
    const bool negative = digits[0] == '-';
    if (negative) digits.erase(0, 1);
    const int exp = static_cast<int>(digits.size()) - 1 + scale;
    hist_bucket_t want = {0, 0};
    if (exp > 127) {
      want = NAN_BUCKET;
    } else if (exp >= -128) {
      if (digits.size() == 1) digits += '0';
      const int val = std::stoi(digits.substr(0, 2));
      want = {static_cast<int8_t>(negative ? -val : val), static_cast<int8_t>(exp)};
    }
    const hist_bucket_t got = hist_bucket_from_int(value, scale);
    ASSERT_TRUE(got == want) << value << " " << scale << ": " << text_of(got);
  };
  for (int i = 0; i < 200000; ++i) {
    const auto value = static_cast<int64_t>(random() >> (random() % 63));
    if (value == 0) continue;
    ASSERT_NO_FATAL_FAILURE(expect(i % 2 ? value : -value, static_cast<int>(random() % 280) - 140));
  }
  int64_t power = 1;
  for (int k = 0; k <= 18; ++k, power *= k <= 18 ? 10 : 1)
    for (int64_t value : {power - 1, power, power + 1, power * 9, -power}) expect(value == 0 ? 9 : value, -9);
  expect(INT64_MAX, 0);
  expect(INT64_MIN, 0);
  expect(1, INT32_MAX);
  expect(1, INT32_MIN);
  EXPECT_TRUE((hist_bucket_from_int(0, 300) == hist_bucket_t{0, 0}));
}

TEST(hist_bins, texts) {
  EXPECT_EQ(text_of({12, -1}), "+12e-002");
  EXPECT_EQ(text_of({-99, 127}), "-99e+126");
  EXPECT_EQ(text_of({10, -128}), "+10e-129");
  EXPECT_EQ(text_of({10, 1}), "+10e+000");
  EXPECT_EQ(text_of({0, 0}), "0");
  EXPECT_EQ(text_of(NAN_BUCKET), "NaN");
  char text[8];
  EXPECT_EQ(hist_bucket_to_string({12, -1}, text, sizeof text), -1);
  for (hist_bucket_t bucket : {hist_bucket_t{9, 0}, {100, 0}, {-2, 1}, {0, 1}, {-1, 1}, {-100, 3}})
    EXPECT_FALSE(hist_bucket_is_valid(bucket)) << int{bucket.val};
}

}  // namespace
