// Filling, merging, estimates and the stored form, against a map of bins.

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/tolvllhist/tolvllhist.h"

namespace {

struct deleter_t {
  void operator()(histogram_t *hist) const { hist_free(hist); }
};
using hist_ptr = std::unique_ptr<histogram_t, deleter_t>;
using model_t = std::map<double, uint64_t>;  // middle of the bin -> count; the NaN bin at -infinity

hist_ptr make() {
  return hist_ptr(hist_alloc());
}

double key_of(hist_bucket_t bucket) {
  return bucket.val == -1 ? -std::numeric_limits<double>::infinity() : hist_bucket_midpoint(bucket);
}

uint64_t add_saturated(uint64_t a, uint64_t b) {
  return b > UINT64_MAX - a ? UINT64_MAX : a + b;
}

model_t content(const histogram_t *hist) {
  model_t result;
  for (int i = 0; i < hist_num_buckets(hist); ++i) {
    hist_bucket_t bucket;
    uint64_t count;
    EXPECT_TRUE(hist_bucket_idx_bucket(hist, i, &bucket, &count));
    EXPECT_TRUE(result.empty() || result.rbegin()->first < key_of(bucket)) << "bins out of order";
    result.emplace(key_of(bucket), count);
  }
  return result;
}

double random_value(std::mt19937_64 &random) {
  switch (random() % 12) {
    case 0:
      return 0;
    case 1:
      return std::nan("");
    default:
      return std::ldexp(static_cast<double>(static_cast<int64_t>(random())),
                        static_cast<int>(random() % 24) - 70);
  }
}

hist_ptr random_hist(std::mt19937_64 &random, int inserts, uint64_t max_count) {
  hist_ptr hist = make();
  for (int i = 0; i < inserts; ++i) hist_insert(hist.get(), random_value(random), random() % max_count);
  return hist;
}

std::string bytes_of(const histogram_t *hist) {
  std::string bytes(hist_serialize_estimate(hist), '\0');
  EXPECT_EQ(hist_serialize(hist, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  return bytes;
}

TEST(histogram, insert_merge_and_subtract_agree_with_a_map) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 300; ++round) {
    const uint64_t max_count = round % 3 ? 1000 : UINT64_MAX;
    hist_ptr a = random_hist(random, static_cast<int>(random() % 80), max_count);
    hist_ptr b = random_hist(random, static_cast<int>(random() % 80), max_count);
    hist_ptr c = round % 4 ? random_hist(random, static_cast<int>(random() % 5), max_count)
                           : hist_ptr(hist_clone(a.get()));
    model_t want = content(a.get());
    for (const histogram_t *source : {b.get(), c.get()})
      for (auto [key, count] : content(source)) want[key] = add_saturated(want[key], count);
    const histogram_t *sources[] = {b.get(), nullptr, c.get()};
    EXPECT_EQ(hist_accumulate(a.get(), sources, 3), static_cast<int>(want.size()));
    ASSERT_EQ(content(a.get()), want) << "round " << round;

    bool negative = false;
    const hist_ptr other = random() % 2 ? hist_ptr(hist_clone(b.get())) : random_hist(random, 40, 3);
    const histogram_t *less = other.get();
    for (auto [key, count] : content(less)) {
      const auto at = want.find(key);
      const uint64_t have = at == want.end() ? 0 : at->second;
      negative |= have < count;
      if (at != want.end()) at->second = have < count ? 0 : have - count;
    }
    EXPECT_EQ(hist_subtract(a.get(), &less, 1), negative ? -1 : 0);
    ASSERT_EQ(content(a.get()), want) << "round " << round;
  }
}

TEST(histogram, merging_with_itself_and_taking_itself_off) {
  std::mt19937_64 random(3);
  hist_ptr a = random_hist(random, 30, 100);
  model_t want = content(a.get());
  for (auto &[key, count] : want) count *= 2;
  const histogram_t *self = a.get();
  hist_accumulate(a.get(), &self, 1);
  EXPECT_EQ(content(a.get()), want);
  EXPECT_EQ(hist_subtract(a.get(), &self, 1), 0);
  EXPECT_EQ(hist_sample_count(a.get()), 0u);
  EXPECT_EQ(hist_num_buckets(a.get()), static_cast<int>(want.size()));
  EXPECT_TRUE(std::isnan(hist_approx_mean(a.get())));
  EXPECT_EQ(bytes_of(a.get()), std::string("\x01\x00", 2)) << "bins without samples are not stored";
}

TEST(histogram, counts_saturate) {
  hist_ptr hist = make();
  EXPECT_EQ(hist_insert(hist.get(), 5, UINT64_MAX - 1), UINT64_MAX - 1);
  EXPECT_EQ(hist_insert(hist.get(), 5, 7), UINT64_MAX);
  EXPECT_EQ(hist_insert(hist.get(), 6, 1), 1u);
  EXPECT_EQ(hist_sample_count(hist.get()), UINT64_MAX);
  EXPECT_EQ(hist_approx_count_below(hist.get(), 100), UINT64_MAX);
  EXPECT_EQ(hist_insert(hist.get(), 7, 0), 0u);
  EXPECT_EQ(hist_num_buckets(hist.get()), 2);
  EXPECT_EQ(hist_insert_raw(hist.get(), {9, 0}, 4), 4u) << "an impossible bin";
  EXPECT_EQ(content(hist.get()).begin()->first, -std::numeric_limits<double>::infinity());
}

TEST(histogram, estimates_of_hand_computed_cases) {
  hist_ptr hist = make();
  double q[] = {0, 0.25, 0.5, 0.75, 1}, out[5];
  EXPECT_EQ(hist_approx_quantile(hist.get(), q, 5, out), 0);
  for (double v : out) EXPECT_TRUE(std::isnan(v));
  EXPECT_EQ(hist_approx_sum(hist.get()), 0);
  EXPECT_TRUE(std::isnan(hist_approx_mean(hist.get())));
  EXPECT_TRUE(std::isnan(hist_approx_stddev(hist.get())));

  // -1.1 to -1.0, zero, and 10 to 11: four samples each, and NaN beside them.
  hist_insert(hist.get(), -1, 4);
  hist_insert(hist.get(), 0, 4);
  hist_insert(hist.get(), 10, 4);
  hist_insert(hist.get(), std::nan(""), 9);
  EXPECT_EQ(hist_sample_count(hist.get()), 21u);
  EXPECT_DOUBLE_EQ(hist_approx_sum(hist.get()), 4 * -1.05 + 4 * 10.5);
  EXPECT_DOUBLE_EQ(hist_approx_mean(hist.get()), (10.5 - 1.05) / 3);
  const double mean = (10.5 - 1.05) / 3;
  EXPECT_DOUBLE_EQ(hist_approx_stddev(hist.get()),
                   std::sqrt((std::pow(-1.05 - mean, 2) + mean * mean + std::pow(10.5 - mean, 2)) / 3));
  EXPECT_EQ(hist_approx_quantile(hist.get(), q, 5, out), 0);
  EXPECT_DOUBLE_EQ(out[0], -1.1);
  EXPECT_DOUBLE_EQ(out[1], -1.1 + 0.1 * 3 / 4);
  EXPECT_DOUBLE_EQ(out[2], 0);
  EXPECT_DOUBLE_EQ(out[3], 10.25);
  EXPECT_DOUBLE_EQ(out[4], 11);
  double values[] = {-1.1, -1.05, 0, 1e-3, 10.5, 11}, share[6];
  EXPECT_EQ(hist_approx_inverse_quantile(hist.get(), values, 6, share), 0);
  const double want[] = {0, 2.0 / 12, 4.0 / 12, 8.0 / 12, 10.0 / 12, 1};
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(share[i], want[i], 1e-12) << values[i];

  EXPECT_EQ(hist_approx_count_below(hist.get(), 0), 4u);
  EXPECT_EQ(hist_approx_count_above(hist.get(), 0), 8u);
  EXPECT_EQ(hist_approx_count_below(hist.get(), 10.5), 8u);
  EXPECT_EQ(hist_approx_count_above(hist.get(), 10.5), 0u);
  EXPECT_EQ(hist_approx_count_above(hist.get(), 10), 4u);
  EXPECT_EQ(hist_approx_count_below(hist.get(), 11), 12u);
  EXPECT_EQ(hist_approx_count_below(hist.get(), -1.05), 0u);

  for (double bad : {-0.01, 1.01, std::nan("")}) {
    out[0] = 42;
    EXPECT_EQ(hist_approx_quantile(hist.get(), &bad, 1, out), -1);
    EXPECT_EQ(out[0], 42);
  }
}

TEST(histogram, quantile_and_share_are_inverse_on_random_data) {
  std::mt19937_64 random(99);
  for (int round = 0; round < 100; ++round) {
    hist_ptr hist = make();
    for (int i = 0; i < 50; ++i)
      hist_insert(hist.get(), std::ldexp(static_cast<double>(random() % 100000) + 1, -10), random() % 50 + 1);
    for (int i = 0; i <= 20; ++i) {
      const double q = i / 20.0;
      double value, back;
      ASSERT_EQ(hist_approx_quantile(hist.get(), &q, 1, &value), 0);
      ASSERT_EQ(hist_approx_inverse_quantile(hist.get(), &value, 1, &back), 0);
      ASSERT_NEAR(back, q, 1e-9);
    }
  }
}

TEST(histogram, reduced_copies) {
  hist_ptr hist = make();
  for (double value : {0.004, 0.04, 0.37, 0.3123, 1.23, 12.3, -0.09, -0.55}) hist_insert(hist.get(), value, 10);
  hist_insert(hist.get(), std::nan(""), 1);
  const hist_ptr coarse(hist_compress_mbe(hist.get(), -1));
  const model_t want = {{-std::numeric_limits<double>::infinity(), 1},
                        {-0.505, 10},
                        {0, 30},
                        {0.305, 20},
                        {1.25, 10},
                        {12.5, 10}};
  EXPECT_EQ(content(coarse.get()), want);
  const hist_ptr same(hist_compress_mbe(hist.get(), -128));
  EXPECT_EQ(content(same.get()), content(hist.get()));

  const hist_ptr third(hist_downsample(hist.get(), 1.0 / 3));
  EXPECT_NEAR(static_cast<double>(hist_sample_count(third.get())), 27, 1);
  for (auto [key, count] : content(third.get())) EXPECT_LE(count, 4u) << key;
  const hist_ptr none(hist_downsample(hist.get(), 0));
  EXPECT_EQ(hist_num_buckets(none.get()), 0);
}

TEST(histogram, stored_form_by_hand) {
  hist_ptr hist = make();
  hist_insert(hist.get(), 0.125, 300);
  hist_insert(hist.get(), -20, 1);
  hist_insert(hist.get(), 0, UINT64_MAX);
  hist_insert(hist.get(), std::nan(""), 127);
  const std::string want(
      "\x01\x04"
      "\xff\x00\x7f"
      "\xec\x01\x01"
      "\x00\x00\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01"
      "\x0c\xff\xac\x02",
      24);
  EXPECT_EQ(bytes_of(hist.get()), want);
  hist_ptr back = make();
  EXPECT_EQ(hist_deserialize(back.get(), want.data(), want.size()), static_cast<ssize_t>(want.size()));
  EXPECT_EQ(content(back.get()), content(hist.get()));
  char small[23];
  EXPECT_EQ(hist_serialize(hist.get(), small, sizeof small), -1);

  std::string text(hist_serialize_b64_estimate(hist.get()), '?');
  EXPECT_EQ(hist_serialize_b64(hist.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  hist_clear(back.get());
  EXPECT_EQ(hist_deserialize_b64(back.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(content(back.get()), content(hist.get()));
  EXPECT_EQ(hist_deserialize_b64(back.get(), text.data(), text.size() - 1), -1);
  EXPECT_EQ(hist_num_buckets(back.get()), 0) << "nothing is left of what failed";
  EXPECT_EQ(hist_serialize_b64(hist.get(), text.data(), text.size() - 1), -1);
}

TEST(histogram, stored_form_round_trips_and_refuses_every_cut) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 50; ++round) {
    hist_ptr hist = random_hist(random, 60, round % 2 ? 200 : UINT64_MAX);
    const std::string bytes = bytes_of(hist.get());
    hist_ptr back = make();
    for (size_t cut = 0; cut < bytes.size(); ++cut)
      ASSERT_EQ(hist_deserialize(back.get(), bytes.substr(0, cut).data(), cut), -1) << cut;
    ASSERT_EQ(hist_deserialize(back.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    model_t want = content(hist.get());
    ASSERT_EQ(content(back.get()), want);
    ASSERT_EQ(hist_deserialize(back.get(), (bytes + '\0').data(), bytes.size() + 1), -1);
  }
}

TEST(histogram, what_the_stored_form_refuses) {
  const std::pair<const char *, std::string> cases[] = {
      {"version", std::string("\x02\x00", 2)},
      {"order", std::string("\x01\x02\x0c\x01\x01\x0b\x01\x01", 8)},
      {"repeat", std::string("\x01\x02\x0c\x01\x01\x0c\x01\x01", 8)},
      {"val of one digit", std::string("\x01\x01\x09\x01\x01", 5)},
      {"val of three digits", std::string("\x01\x01\x64\x01\x01", 5)},
      {"zero bin with an exponent", std::string("\x01\x01\x00\x01\x01", 5)},
      {"NaN bin with an exponent", std::string("\x01\x01\xff\x01\x01", 5)},
      {"NaN bin behind a number", std::string("\x01\x02\x9d\x7f\x01\xff\x00\x01", 8)},
      {"count of more than 64 bits",
       std::string("\x01\x01\x0c\x01\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02", 14)},
      {"count longer than need be", std::string("\x01\x01\x0c\x01\x81\x00", 6)},
      {"more bins than bytes", std::string("\x01\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01", 11)},
  };
  for (const auto &[what, bytes] : cases) {
    hist_ptr hist = make();
    EXPECT_EQ(hist_deserialize(hist.get(), bytes.data(), bytes.size()), -1) << what;
    EXPECT_EQ(hist_num_buckets(hist.get()), 0) << what;
  }
}

}  // namespace
