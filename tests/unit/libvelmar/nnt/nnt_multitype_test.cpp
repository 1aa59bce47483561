// The cell's arithmetic against figures worked out by hand, statistics of the samples, and its steps in long
// form.
#include "libvelmar/nnt/nnt_multitype.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "nnt_samples.h"

namespace {

// Cells of add_data_to_bucket for one run of samples.
struct bucket_t {
  metric_value_t *last = nullptr;
  nnt_multitype cell{};
  int drun = 0, crun = 0;

  ~bucket_t() { free(last); }
  bucket_t &add(const metric_value_t &value) {
    add_data_to_bucket(value, &last, &cell, &drun, &crun);
    return *this;
  }
  bucket_t &next_cell() {
    cell = nnt_multitype{};
    drun = crun = 0;
    return *this;
  }
};

struct change_t {
  double dy;
  int dt;
};
change_t change(const metric_value_t &v1, const metric_value_t &v2) {
  change_t result;
  calculate_change(v1, v2, &result.dy, &result.dt);
  return result;
}

nnt_multitype cell_n(double value, uint32_t count, float stddev, float rate) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_DOUBLE;
  cell.value.v_double = value;
  cell.count = count;
  cell.stddev_present = 1;
  cell.stddev = stddev;
  cell.derivative = cell.counter = rate;
  return cell;
}

const float NAN_F = std::numeric_limits<float>::quiet_NaN();

class nnt_multitype_test : public testing::Test {
 protected:
  static void SetUpTestSuite() { init_private_nan(); }
};

TEST_F(nnt_multitype_test, change_between_samples) {
  EXPECT_EQ(change(sample_L(1000, 5), sample_L(3500, 12)).dy, 7);
  EXPECT_EQ(change(sample_L(1000, 5), sample_L(3500, 12)).dt, 2500);
  EXPECT_EQ(change(sample_L(2000, 0), sample_L(1000, 0)).dt, -1000);
  EXPECT_EQ(change(sample_L(0, 0), sample_L((1ULL << 32) + 7, 0)).dt, 7);
  EXPECT_EQ(change(sample_L(0, 12), sample_L(1, 5)).dy, -7);
  // 2^64-1 to 0 is no small step up
  EXPECT_EQ(change(sample_L(0, UINT64_MAX), sample_L(1, 0)).dy, -0x1p64);
  EXPECT_EQ(change(sample_L(0, 0), sample_L(1, UINT64_MAX)).dy, 0x1p64);
  // the difference keeps its low bits where two doubles would lose them
  EXPECT_EQ(change(sample_L(0, UINT64_MAX - 1), sample_L(1, UINT64_MAX)).dy, 1);
  EXPECT_EQ(change(sample_l(0, INT64_MAX - 1), sample_l(1, INT64_MAX)).dy, 1);
  EXPECT_EQ(change(sample_l(0, INT64_MAX), sample_L(1, 1ULL << 63)).dy, 1);
  // a negative number beside an unsigned one, and an overflow of int64, are taken in double
  EXPECT_EQ(change(sample_l(0, -5), sample_L(1, 10)).dy, 15);
  EXPECT_EQ(change(sample_L(0, UINT64_MAX), sample_l(1, -5)).dy, -0x1p64);
  EXPECT_EQ(change(sample_l(0, INT64_MIN), sample_l(1, INT64_MAX)).dy, 0x1p64);
  EXPECT_EQ(
      change(sample_of(0, VELMAR_METRIC_UINT32, UINT32_MAX), sample_of(1, VELMAR_METRIC_INT32, UINT32_MAX)).dy,
      -0x1p32);
  EXPECT_EQ(change(sample_L(0, 1), sample_n(1, 2.5)).dy, 1.5);
  EXPECT_TRUE(std::isnan(change(sample_L(0, 1), sample_of(1, VELMAR_METRIC_STRING, 0)).dy));
  EXPECT_TRUE(std::isnan(change(sample_of(0, VELMAR_METRIC_ABSENT, 0), sample_L(1, 1)).dy));
  metric_value_t null = sample_n(0, 1);
  null.is_null = true;
  EXPECT_TRUE(std::isnan(change(null, sample_n(1, 1)).dy));
}

TEST_F(nnt_multitype_test, three_samples) {
  bucket_t b;
  b.add(sample_L(0, 1));
  EXPECT_EQ(b.cell.count, 1U);
  EXPECT_EQ(b.cell.type, NNT_TYPE_UINT64);
  EXPECT_FALSE(b.cell.stddev_present);
  EXPECT_EQ(b.cell.derivative, 0);
  b.add(sample_L(1000, 2)).add(sample_L(2000, 3));
  EXPECT_EQ(b.cell.count, 3U);
  EXPECT_EQ(b.cell.type, NNT_TYPE_UINT64);
  EXPECT_EQ(b.cell.value.v_uint64, 2U);
  EXPECT_TRUE(b.cell.stddev_present);
  EXPECT_EQ(b.cell.stddev, 0.81649661F);  // sqrt((2 * (1.5^2 + 0.5^2) + 9) / 3 - 4)
  EXPECT_EQ(b.cell.derivative, 1);
  EXPECT_EQ(b.cell.counter, 1);
  EXPECT_TRUE(std::isnan(b.cell.derivative_stddev));
  EXPECT_EQ(b.drun, 2000);
  EXPECT_EQ(b.crun, 2000);
}

TEST_F(nnt_multitype_test, falls_gaps_nulls_and_equal_times) {
  bucket_t b;
  b.add(sample_L(0, 10)).add(sample_L(1000, 30));
  b.add(sample_L(3000, 0));  // -15 a second for two seconds
  EXPECT_FLOAT_EQ(b.cell.derivative, (20.0F - 30.0F) / 3);
  EXPECT_EQ(b.cell.counter, 20);
  EXPECT_EQ(b.drun, 3000);
  EXPECT_EQ(b.crun, 1000);
  const nnt_multitype before = b.cell;
  b.add(sample_L(3000, 900));  // no time has passed
  EXPECT_EQ(b.cell.count, 4U);
  EXPECT_EQ(b.cell.derivative, before.derivative);
  EXPECT_EQ(b.cell.counter, before.counter);
  EXPECT_EQ(b.drun, 3000);
  metric_value_t null = sample_L(4000, 1);
  null.is_null = true;
  b.add(null);
  EXPECT_EQ(b.cell.count, 4U);
  EXPECT_EQ(b.last->whence_ms, 3000U);
  // the last value seeds the next cell, where a lone fall leaves no counter
  b.next_cell().add(sample_n(5000, 890));
  EXPECT_EQ(b.cell.count, 1U);
  EXPECT_EQ(b.cell.type, NNT_TYPE_DOUBLE);
  EXPECT_TRUE(b.cell.stddev_present);
  EXPECT_EQ(b.cell.stddev, 0);
  EXPECT_EQ(b.cell.derivative, -5);
  EXPECT_TRUE(std::isnan(b.cell.counter));
  EXPECT_TRUE(std::isnan(b.cell.min));
  EXPECT_EQ(b.crun, 0);
}

TEST_F(nnt_multitype_test, the_mean_decides_the_type) {
  const struct {
    double mean;
    nnt_type_t type;
    uint64_t bits;
  } cases[] = {{2, NNT_TYPE_UINT64, 2},
               {0.0, NNT_TYPE_UINT64, 0},
               {-0.0, NNT_TYPE_UINT64, 0},
               {-3, NNT_TYPE_INT64, static_cast<uint64_t>(-3)},
               {2.5, NNT_TYPE_DOUBLE, bits_of(2.5)},
               {-0.5, NNT_TYPE_DOUBLE, bits_of(-0.5)},
               {0x1p63, NNT_TYPE_UINT64, 1ULL << 63},
               {-0x1p63, NNT_TYPE_INT64, 1ULL << 63},
               {0x1p64, NNT_TYPE_DOUBLE, bits_of(0x1p64)},
               {-0x1.0000000000001p63, NNT_TYPE_DOUBLE, bits_of(-0x1.0000000000001p63)},
               {HUGE_VAL, NNT_TYPE_DOUBLE, bits_of(HUGE_VAL)},
               {-HUGE_VAL, NNT_TYPE_DOUBLE, bits_of(-HUGE_VAL)}};
  for (const auto &c : cases) {
    nnt_multitype a = cell_n(c.mean, 1, 0, 0);
    const nnt_multitype v = a;
    nnt_multitype_accum(&a, &v);
    EXPECT_EQ(a.type, c.type) << c.mean;
    EXPECT_EQ(a.value.v_uint64, c.bits) << c.mean;
  }
  nnt_multitype nan = cell_n(NAN, 1, 0, 0);
  const nnt_multitype v = nan;
  nnt_multitype_accum(&nan, &v);
  EXPECT_EQ(nan.type, NNT_TYPE_DOUBLE);
  // integers with a mean between them
  bucket_t b;
  b.add(sample_l(0, 2)).add(sample_l(1, 3));
  EXPECT_EQ(b.cell.type, NNT_TYPE_DOUBLE);
  EXPECT_EQ(b.cell.value.v_double, 2.5);
}

TEST_F(nnt_multitype_test, merging_two_cells) {
  // weights 3 and 1: mean 2.5; E[x^2] = (3*(4+1) + 16+4)/4 = 8.75; 8.75 - 6.25 = 2.5
  nnt_multitype a = cell_n(2, 3, 1, 8);
  nnt_multitype v = cell_n(4, 1, 2, 4);
  a.derivative_stddev = a.counter_stddev = 1;
  v.derivative_stddev = v.counter_stddev = 3;
  nnt_multitype_accum(&a, &v);
  EXPECT_EQ(a.count, 4U);
  EXPECT_EQ(a.value.v_double, 2.5);
  EXPECT_EQ(a.stddev, std::sqrt(2.5F));
  // mean 7; ((16+9) + 3*(64+1))/4 - 49 = 6
  EXPECT_EQ(a.derivative, 7);
  EXPECT_EQ(a.derivative_stddev, std::sqrt(6.0F));
  EXPECT_EQ(a.counter, 7);
  EXPECT_EQ(a.counter_stddev, std::sqrt(6.0F));
  // a NaN on either side
  nnt_multitype b = cell_n(2, 1, 0, NAN_F);
  b.derivative_stddev = 5;
  v.derivative_stddev = NAN_F;
  nnt_multitype_accum(&b, &v);
  EXPECT_EQ(b.derivative, 4);
  EXPECT_EQ(b.derivative_stddev, 5);
  v.derivative = NAN_F;
  v.derivative_stddev = 1;
  nnt_multitype_accum(&b, &v);
  EXPECT_EQ(b.derivative, 4);
  EXPECT_EQ(b.derivative_stddev, 5);
  // a counter's deviation also needs the other's counter, a derivative's does not
  nnt_multitype c = cell_n(2, 1, 0, NAN_F);
  c.derivative_stddev = c.counter_stddev = 5;
  v.counter = NAN_F;
  v.counter_stddev = 1;
  nnt_multitype_accum(&c, &v);
  EXPECT_EQ(c.counter_stddev, 5);
  EXPECT_TRUE(std::isnan(c.derivative_stddev));
}

TEST_F(nnt_multitype_test, cells_without_deviation_or_number) {
  nnt_multitype bare = cell_n(1, 1, 0, 0), with = cell_n(3, 1, 1, 0);
  bare.stddev_present = 0;
  nnt_multitype a = with;
  nnt_multitype_accum(&a, &bare);
  EXPECT_EQ(a.stddev, 1);
  nnt_multitype b = bare;
  nnt_multitype_accum(&b, &bare);
  EXPECT_FALSE(b.stddev_present);
  nnt_multitype c = bare;
  nnt_multitype_accum(&c, &with);
  EXPECT_TRUE(c.stddev_present);
  EXPECT_EQ(c.stddev, std::sqrt(1.5F));  // (1 + 9 + 1)/2 - 4
  nnt_multitype null{}, empty{};
  null.type = NNT_TYPE_NULL;
  nnt_multitype_accum(&null, &with);
  EXPECT_EQ(null.count, 1U);
  EXPECT_EQ(null.value.v_uint64, 3U);
  nnt_multitype_accum(&empty, &empty);
  EXPECT_EQ(empty.type, NNT_TYPE_ABSENT);
  EXPECT_EQ(nnt_multitype_accum_counts(&empty, 0, 0, 0, &with, 70'000, 1, 1), 70'000);
  EXPECT_TRUE(same_cell(empty, with));
}

TEST_F(nnt_multitype_test, rolling_up_weighs_rates_by_cells) {
  const nnt_multitype cells[] = {cell_n(1, 40'000, 0, 2), nnt_multitype{}, cell_n(4, 20'000, 0, 5),
                                 cell_n(4, 20'000, 0, 8)};
  nnt_multitype a{};
  nnt_multitype_rollup(&a, 0, 3, cells, 1);
  EXPECT_EQ(a.count, 60'000U);
  EXPECT_EQ(a.value.v_uint64, 2U);
  EXPECT_EQ(a.derivative, 3.5F);
  nnt_multitype_rollup(&a, 2, 1, cells + 3, 1);
  EXPECT_EQ(a.count, NNT_COUNT_MAX);
  EXPECT_EQ(a.value.v_double, 2.5);  // the weights were not clamped
  EXPECT_EQ(a.derivative, 5);
  nnt_multitype first{}, big = cell_n(1, 100'000, 0, 0);
  nnt_multitype_rollup(&first, 0, 1, &big, 1);
  EXPECT_EQ(first.count, NNT_COUNT_MAX);
}

// What the samples say themselves, without any recurrence.
TEST_F(nnt_multitype_test, agrees_with_the_samples_statistics) {
  std::mt19937 random(7);
  bucket_t b;
  b.add(sample_L(0, 1000)).next_cell();
  std::vector<long double> values;
  uint64_t t = 0, level = 1000;
  for (int i = 0; i < 5000; i++) {
    t += 1 + random() % 2000;
    level += random() % 10;
    b.add(sample_L(t, level));
    values.push_back(level);
  }
  long double mean = 0, variance = 0;
  for (const long double x : values) mean += x / values.size();
  for (const long double x : values) variance += (x - mean) * (x - mean) / values.size();
  EXPECT_NEAR(nnt_multitype_double(b.cell), static_cast<double>(mean), 1e-6);
  EXPECT_NEAR(b.cell.stddev / std::sqrt(static_cast<double>(variance)), 1, 1e-5);
  const double rate = static_cast<double>(level - 1000) * 1000 / static_cast<double>(t);
  EXPECT_NEAR(b.cell.derivative / rate, 1, 1e-3);
  EXPECT_EQ(b.cell.derivative, b.cell.counter);
}

// The steps for samples in one cell, written out flat. Its figures are those of the stored form.
struct long_form_t {
  bool any = false, seeded = false, d_merged = false, c_merged = false;
  double mean = 0;
  float stddev = 0, d = 0, c = 0;
  uint32_t count = 0;
  int d_weight = 0, c_weight = 0;

  static float merge(float old, int weight, double rate, int dt) {
    const double product = weight * static_cast<double>(old);
    const double product2 = dt * static_cast<double>(static_cast<float>(rate));
    const auto sum = static_cast<float>(product + product2);
    return static_cast<float>(static_cast<double>(sum) / static_cast<double>(weight + dt));
  }
  void add(const metric_value_t *prev, const metric_value_t &v) {
    double dy = NAN, rate = NAN;
    int dt = 0;
    if (prev) calculate_change(*prev, v, &dy, &dt);
    if (dt > 0) rate = dy * 1000.0 / dt;
    const double y = metric_value_double(v);
    if (!any) {
      any = true;
      seeded = prev != nullptr;
      d = c = seeded ? NAN_F : 0;
      mean = y;
      count = 1;
    } else {
      const double n = count;
      const double new_mean = (n * mean + y) / (n + 1);
      const double square = static_cast<double>(stddev * stddev);
      const double variance = (n * (mean * mean + square) + y * y) / (n + 1) - new_mean * new_mean;
      stddev = variance > 0 ? static_cast<float>(std::sqrt(variance)) : 0;
      mean = new_mean;
      count++;
    }
    if (dt > 0) {
      if (d_weight == 0 || std::isnan(d))
        d = static_cast<float>(rate);
      else if (!std::isnan(rate))
        d = merge(d, d_weight, rate, dt);
      d_weight += dt;
      d_merged = true;
    }
    if (rate >= 0) {
      c = c_weight == 0 || std::isnan(c) ? static_cast<float>(rate) : merge(c, c_weight, rate, dt);
      c_weight += dt;
      c_merged = true;
    }
  }
};

TEST_F(nnt_multitype_test, every_step_as_in_long_form) {
  for (uint32_t seed = 0; seed < 300; seed++) {
    samples_c source(seed);
    const bool seeded = source.pick(2);
    bucket_t b;
    long_form_t expected;
    std::vector<metric_value_t> samples = source.make(0, 20ULL * 86'400'000, 300);
    std::erase_if(samples, [](const metric_value_t &v) { return v.is_null; });
    for (size_t i = 0; i < samples.size(); i++) {
      b.add(samples[i]);
      if (i == 0 && seeded) {
        b.next_cell();
        continue;
      }
      expected.add(i ? &samples[i - 1] : nullptr, samples[i]);
      const nnt_multitype &c = b.cell;
      ASSERT_EQ(c.count, expected.count);
      ASSERT_TRUE(same_float(c.stddev, expected.stddev)) << seed << " " << i << " " << show_cell(c);
      const double mean = nnt_multitype_double(c);
      ASSERT_TRUE(mean == expected.mean || (std::isnan(mean) && std::isnan(expected.mean))) << show_cell(c);
      ASSERT_TRUE(same_float(c.derivative, expected.d)) << seed << " " << i << " " << show_cell(c);
      ASSERT_TRUE(same_float(c.counter, expected.c)) << seed << " " << i << " " << show_cell(c);
      ASSERT_EQ(std::isnan(c.derivative_stddev), expected.d_merged || expected.seeded) << show_cell(c);
      ASSERT_EQ(std::isnan(c.counter_stddev), expected.c_merged || expected.seeded) << show_cell(c);
      ASSERT_EQ(c.stddev_present != 0, expected.seeded || c.count > 1);
    }
  }
}

using nnt_multitype_death_test = nnt_multitype_test;
TEST_F(nnt_multitype_death_test, strings_end_the_process) {
  bucket_t b;
  EXPECT_DEATH(b.add(sample_of(0, VELMAR_METRIC_STRING, 0)), "Unknown type: 0x0073");
}

}  // namespace
