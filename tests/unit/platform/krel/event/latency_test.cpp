#include "platform/krel/event/krelev_latency.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

TEST(latency, quantiles_and_mean_agree_with_the_sorted_values) {
  std::mt19937_64 random(3);
  std::lognormal_distribution<double> spread(9, 3);  // nanoseconds to seconds
  krelev_latency_c latency;
  std::vector<double> values;
  double sum = 0;
  for (int i = 0; i < 50000; ++i) {
    auto ns = static_cast<uint64_t>(spread(random));
    latency.add(ns);
    values.push_back(static_cast<double>(ns) / 1000);
    sum += values.back();
  }
  std::sort(values.begin(), values.end());
  for (double q : {0.01, 0.5, 0.9, 0.99, 1.0}) {
    double exact = values[static_cast<size_t>(std::ceil(q * 50000)) - 1];
    EXPECT_NEAR(latency.quantile_us(q), exact, exact * 0.0626) << q;
  }
  EXPECT_NEAR(latency.mean_us(), sum / 50000, sum / 50000 * 1e-9);
}

TEST(latency, bounds_and_fading) {
  krelev_latency_c latency;
  EXPECT_EQ(latency.mean_us(), 0);
  EXPECT_EQ(latency.quantile_us(0.99), 0);
  latency.add(0);
  EXPECT_EQ(latency.quantile_us(0.99), 0);
  latency.add(UINT64_MAX / 2);
  EXPECT_GT(latency.quantile_us(1), 4.0 * 3600 * 1e6);
  // What was fast long ago must not hide what is slow now.
  krelev_latency_c recent;
  for (int i = 0; i < 1000000; ++i) recent.add(1000);
  for (int i = 0; i < 20000; ++i) recent.add(1000000);
  EXPECT_NEAR(recent.quantile_us(0.8), 1000, 70);
}
