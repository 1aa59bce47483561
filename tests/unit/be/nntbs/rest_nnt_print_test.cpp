// Cells as JSON: numbers as printf writes them, parts of a cell, second order values worked out by hand.
#include "be/nntbs/rest_nnt_print.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "be/nntbs/print_number.h"

namespace {

const float NAN_F = std::numeric_limits<float>::quiet_NaN();

std::string by_printf(double value) {
  char text[64];
  snprintf(text, sizeof text, "%.20g", value);
  return text;
}

std::string number(double value) {
  char text[PRINT_NUMBER_MAX];
  return {text, print_double(text, value)};
}

std::string print(nnt_multitype_part type, const nnt_multitype &cell, const nnt_part_t *part = nullptr,
                  uint64_t offset_ms = 0, int location = 0) {
  char text[REST_NNT_CELL_MAX];
  const int length =
      rest_nnt_print_to_buffer(type, text, sizeof text, &cell, offset_ms, 60'000, part, location);
  return {text, static_cast<size_t>(length)};
}

nnt_multitype cell_n(double value, uint32_t count, float derivative = 0, float counter = 0) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_DOUBLE;
  cell.value.v_double = value;
  cell.count = count;
  cell.derivative = derivative;
  cell.counter = counter;
  return cell;
}

TEST(print_double, at_the_borders_of_its_ways) {
  for (const double value : {0.0,
                             -0.0,
                             1.0,
                             -1.0,
                             0.5,
                             -2.5,
                             0.1,
                             0.01,
                             0.001,
                             0.0001,
                             0.00001,
                             0.3,
                             2.0 / 3,
                             1e15,
                             1e16,
                             1e17,
                             1e18,
                             1e19,
                             1e20,
                             1e21,
                             1e22,
                             1e300,
                             1e-300,
                             5e-324,
                             2.2250738585072014e-308,
                             0x1p53,
                             0x1p53 - 1,
                             0x1p52 + 0.5,
                             0x1p63,
                             0x1p64,
                             0x1.fffffffffffffp63,
                             99999999999999999999.0,
                             123456.789,
                             0.1 + 0.2,
                             1.0000000000000002,
                             9.999999999999998,
                             0.99999999999999989,
                             0.099999999999999992,
                             0.00099999999999999998,
                             0.00010000000000000002,
                             4503599627370495.5,
                             4503599627370497.5,
                             0x1p-13,
                             0x1p-14,
                             1 + 0x1p-52,
                             1e20 / 3,
                             -1e-4,
                             -9e-5}) {
    EXPECT_EQ(number(value), by_printf(value));
    for (const double other : {std::nextafter(value, HUGE_VAL), std::nextafter(value, -HUGE_VAL)})
      EXPECT_EQ(number(other), by_printf(other));
  }
  EXPECT_EQ(number(HUGE_VAL), "null");
  EXPECT_EQ(number(-HUGE_VAL), "null");
  EXPECT_EQ(number(NAN), "null");
}

TEST(print_double, agrees_with_printf_on_any_bits) {
  std::mt19937_64 random(11);
  for (int i = 0; i < 300'000; i++) {
    const uint64_t bits = random();
    // any double, a float, one of everyday size, one with few bits behind its point (halves are rounded to
    // even)
    const double values[] = {std::bit_cast<double>(bits), std::bit_cast<float>(static_cast<uint32_t>(bits)),
                             std::ldexp(static_cast<double>(bits >> 11), -static_cast<int>(bits % 68)),
                             static_cast<double>(bits >> 12) / (1U << (bits % 32))};
    for (const double value : values) {
      if (std::isfinite(value)) {
        ASSERT_EQ(number(value), by_printf(value)) << std::hex << std::bit_cast<uint64_t>(value);
      }
    }
  }
}

TEST(print_padded, keeps_its_width) {
  char text[20];
  EXPECT_EQ(std::string(text, print_padded(text, 7, 3)), "007");
  EXPECT_EQ(std::string(text, print_padded(text, 250, 3)), "250");
  EXPECT_EQ(std::string(text, print_padded(text, 42, 18)), "000000000000000042");
  EXPECT_EQ(std::string(text, print_padded(text, 0, 0)), "");
}

TEST(rest_nnt_print, values_by_their_type) {
  nnt_multitype cell{};
  const auto as = [&](nnt_type_t type, uint64_t bits) {
    cell.type = type;
    cell.value.v_uint64 = bits;
    return print(NNT_AVERAGE, cell);
  };
  EXPECT_EQ(as(NNT_TYPE_INT32, 0xfffffffe), "-2");
  EXPECT_EQ(as(NNT_TYPE_UINT32, 0xfffffffe), "4294967294");
  EXPECT_EQ(as(NNT_TYPE_INT64, 1ULL << 63), "-9223372036854775808");
  EXPECT_EQ(as(NNT_TYPE_UINT64, UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(as(NNT_TYPE_DOUBLE, std::bit_cast<uint64_t>(0.1)), "0.10000000000000000555");
  for (const nnt_type_t type : {NNT_TYPE_ABSENT, NNT_TYPE_NULL, NNT_TYPE_STRING}) {
    EXPECT_EQ(as(type, 5), "null");
    EXPECT_EQ(print(NNT_COUNT, cell), "null");
    EXPECT_EQ(print(NNT_ALL, cell), "null");
  }
}

TEST(rest_nnt_print, parts_of_a_cell) {
  nnt_multitype cell = cell_n(2.5, 7);
  cell.stddev = 0.5;
  cell.derivative = -1;
  cell.derivative_stddev = NAN_F;
  cell.counter = 0.1F;
  cell.counter_stddev = 3;
  cell.min = 1;
  cell.max = 2;
  cell.counter_min = 3;
  cell.counter_max = 4;
  cell.derivative_min = 5;
  cell.derivative_max = 6;
  const struct {
    nnt_multitype_part part;
    const char *text;
  } cases[] = {{NNT_COUNT, "7"},
               {NNT_AVERAGE, "2.5"},
               {NNT_AVERAGE_STDDEV, "0.5"},
               {NNT_DERIVE, "-1"},
               {NNT_DERIVE_STDDEV, "null"},
               {NNT_COUNTER, "0.10000000149011611938"},
               {NNT_COUNTER_STDDEV, "3"},
               {NNT_DERIVE2, "null"},
               {NNT_COUNTER2_STDDEV, "null"},
               {NNT_MIN, "1"},
               {NNT_MAX, "2"},
               {NNT_COUNTER_MIN, "3"},
               {NNT_COUNTER_MAX, "4"},
               {NNT_DERIVE_MIN, "5"},
               {NNT_DERIVE_MAX, "6"}};
  for (const auto &c : cases) EXPECT_EQ(print(c.part, cell), c.text) << c.part;
  EXPECT_EQ(
      print(NNT_ALL, cell),
      R"({"count":7,"value":2.5,"stddev":0.5,"derivative":-1,"derivative_stddev":null,)"
      R"("counter":0.10000000149011611938,"counter_stddev":3,"derivative2":null,"derivative2_stddev":null,)"
      R"("counter2":null,"counter2_stddev":null})");
  EXPECT_DEATH(print(NNT_SUM, cell), "ERROR: BAD TYPE: 18");
}

TEST(rest_nnt_print, the_largest_cell_fits) {
  nnt_multitype cell = cell_n(-2.2250738585072014e-308, INT32_MAX);
  cell.stddev = cell.derivative = cell.derivative_stddev = cell.counter = cell.counter_stddev =
      -1.17549435e-38F;
  EXPECT_LT(print(NNT_ALL, cell).size(), REST_NNT_CELL_MAX);
}

TEST(second_order, means_weighted_by_time) {
  // one cell in front, then three to an answer cell; a minute apart
  std::vector<nnt_multitype> cells = {
      cell_n(0, 1, 0, 10), cell_n(0, 1, 60, 10), cell_n(0, 0), cell_n(0, 1, 120, 40), cell_n(0, 1, 0, 0),
      cell_n(0, 0),        cell_n(0, 0),         cell_n(0, 0), cell_n(0, 0),          cell_n(0, 0)};
  const nnt_part_t part = {cells.data(), static_cast<int32_t>(cells.size()), 3, 60'000};
  second_order_derivative_t second = {9, 9, 9, 9};
  // changes: 1 a second over 60 s, 0.5 over 120 s; counters 0 and 0.25
  rest_nnt_get_second_order(&second, &part, 1'000'000, 0);
  EXPECT_FLOAT_EQ(second.derivative, (60 * 1 + 120 * 0.5F) / 180);
  EXPECT_FLOAT_EQ(second.counter, 120 * 0.25F / 180);
  EXPECT_FLOAT_EQ(second.derivative_stddev, 0.25);
  EXPECT_FLOAT_EQ(second.counter_stddev, 0.125);
  // one change: no deviation
  second = {9, 9, 9, 9};
  rest_nnt_get_second_order(&second, &part, 1'000'000, 1);
  EXPECT_EQ(second.derivative, -2);
  EXPECT_EQ(second.derivative_stddev, 9);
  // no change, and cells past the end of what there is
  rest_nnt_get_second_order(&second, &part, 1'000'000, 2);
  EXPECT_EQ(second.derivative, 0);
  EXPECT_EQ(second.counter, 0);
  rest_nnt_get_second_order(&second, &part, 1'000'000, 3);
  EXPECT_EQ(second.derivative, 0);
  EXPECT_EQ(print(NNT_DERIVE2, cell_n(1, 1), &part, 1'000'000, 1), "-2");
  EXPECT_EQ(print(NNT_DERIVE2_STDDEV, cell_n(1, 1), &part, 1'000'000, 1), "null");
}

TEST(nnt_multitype_part, words) {
  for (int i = NNT_COUNT; i <= NNT_COUNTER2_STDDEV; i++) {
    const auto part = static_cast<nnt_multitype_part>(i);
    EXPECT_EQ(nnt_multitype_part_parse(rest_get_numeric_pull_type(part)), part);
  }
  EXPECT_EQ(nnt_multitype_part_parse("derivative"), NNT_DERIVE);
  EXPECT_EQ(nnt_multitype_part_parse("derivative2_stddev"), NNT_DERIVE2_STDDEV);
  for (const char *bad : {"", "min", "derivativ", "counter3", "Average", "derivativeX", "sum", "average "})
    EXPECT_FALSE(nnt_multitype_part_parse(bad)) << bad;
  EXPECT_STREQ(rest_get_numeric_pull_type(NNT_DERIVE_MAX), "derive_max");
  EXPECT_EQ(rest_get_numeric_pull_type(NNT_SUM), nullptr);
}

}  // namespace
