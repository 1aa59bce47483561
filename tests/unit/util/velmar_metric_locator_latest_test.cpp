#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_memory.h"
#include "platform/tolvllhist/tolvllhist.h"
#include "util/histogram_entries.h"
#include "util/metric_locator.h"

namespace {

metric_locator_sp locator(velmar_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC) {
  const uint8_t uuid[16] = {1, 2, 3};
  const mem_reader_t name = {"m", 1};
  return metric_locator_adopt(velmar_metric_locator_create(uuid, &name, type));
}

void update(const metric_locator_sp &ml, uint64_t whence, bool instantiate = true) {
  velmar_metric_locator_numeric_value_t value;
  value.v_uint64 = whence * 10;
  velmar_metric_locator_update_numeric(ml.get(), whence, VELMAR_METRIC_UINT64, &value, instantiate);
}

// "older,newest"; the values must go with the times.
std::string latest(const metric_locator_sp &ml) {
  uint64_t whence[2];
  velmar_metric_type_t type[2];
  velmar_metric_locator_numeric_value_t value[2];
  if (!velmar_metric_locator_last2_numeric(ml.get(), whence, type, value)) return "none";
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(type[i], whence[i] ? VELMAR_METRIC_UINT64 : VELMAR_METRIC_ABSENT);
    EXPECT_EQ(value[i].v_uint64, whence[i] * 10);
  }
  return std::to_string(whence[0]) + "," + std::to_string(whence[1]);
}

}  // namespace

TEST(LatestNumeric, KeepsTheTwoNewest) {
  const metric_locator_sp ml = locator();
  update(ml, 10, false);
  EXPECT_EQ(latest(ml), "none");
  update(ml, 10);
  EXPECT_EQ(latest(ml), "0,10");
  velmar_metric_locator_numeric_value_t other = {.v_uint64 = 1};
  velmar_metric_locator_update_numeric(ml.get(), 10, VELMAR_METRIC_UINT64, &other, true);
  EXPECT_EQ(latest(ml), "0,10");  // the first sample of a time stays
  update(ml, 5);
  EXPECT_EQ(latest(ml), "5,10");
  update(ml, 4);
  EXPECT_EQ(latest(ml), "5,10");
  update(ml, 20, false);  // there is a cache now
  EXPECT_EQ(latest(ml), "10,20");
  update(ml, 15);
  EXPECT_EQ(latest(ml), "15,20");
}

TEST(LatestNumeric, WhatLiesTooFarAheadIsNotKept) {
  const metric_locator_sp ml = locator();
  velmar_metric_locator_future_bound = 1000;
  update(ml, 1001);
  EXPECT_EQ(latest(ml), "0,0");
  update(ml, 1000);
  EXPECT_EQ(latest(ml), "0,1000");
  velmar_metric_locator_future_bound = UINT64_MAX;

  velmar_metric_locator_implicit_latest = true;
  const metric_locator_sp implicit = locator();
  update(implicit, 3, false);
  EXPECT_EQ(latest(implicit), "0,3");
  velmar_metric_locator_implicit_latest = false;
}

TEST(LatestNumeric, OrderIsByTheNewestThenTheOneBefore) {
  const metric_locator_sp none = locator(), empty = locator(), a = locator(), b = locator();
  for (const uint64_t whence : {10, 20}) update(a, whence);
  for (const uint64_t whence : {11, 20}) update(b, whence);
  const auto compare = [](const metric_locator_sp &x, const metric_locator_sp &y) {
    return velmar_metric_locator_compare_last2_numeric(x.get(), y.get());
  };
  EXPECT_EQ(compare(none, empty), 0);
  EXPECT_EQ(compare(a, none), -1);
  EXPECT_EQ(compare(none, a), 1);
  EXPECT_EQ(compare(a, a), 0);
  EXPECT_EQ(compare(a, b), 1);
  EXPECT_EQ(compare(b, a), -1);
  update(a, 21);
  EXPECT_EQ(compare(a, b), -1);
}

TEST(LatestNumeric, RandomSamplesAgreeWithAModel) {
  for (uint32_t seed = 1; seed <= 20; seed++) {
    std::mt19937 random(seed);
    const metric_locator_sp ml = locator();
    uint64_t older = 0, newest = 0;
    for (int i = 0; i < 200; i++) {
      const uint64_t whence = random() % (1 + static_cast<unsigned>(i) * 2);
      update(ml, whence);
      if (whence > newest) {
        older = newest;
        newest = whence;
      } else if (whence < newest && whence > older) {
        older = whence;
      }
      ASSERT_EQ(latest(ml), std::to_string(older) + "," + std::to_string(newest)) << "seed " << seed;
    }
  }
}

TEST(LatestText, KeepsTheNewestAndWhatReadersHold) {
  const metric_locator_sp ml = locator(METRIC_TYPE_TEXT);
  uint64_t whence = 0;
  const char *text = nullptr;
  krel_memory_begin();
  EXPECT_FALSE(velmar_metric_locator_last_text(ml.get(), &whence, &text));
  velmar_metric_locator_update_text(ml.get(), 5, "five", false);
  EXPECT_FALSE(velmar_metric_locator_last_text(ml.get(), &whence, &text));
  velmar_metric_locator_update_text(ml.get(), 5, "five", true);
  velmar_metric_locator_update_text(ml.get(), 5, "again", true);
  velmar_metric_locator_update_text(ml.get(), 4, "four", true);
  ASSERT_TRUE(velmar_metric_locator_last_text(ml.get(), &whence, &text));
  EXPECT_EQ(whence, 5u);
  velmar_metric_locator_update_text(ml.get(), 6, nullptr, true);
  EXPECT_STREQ(text, "five");  // replaced, but not gone for us
  ASSERT_TRUE(velmar_metric_locator_last_text(ml.get(), &whence, &text));
  EXPECT_EQ(whence, 6u);
  EXPECT_EQ(text, nullptr);
  krel_memory_end();
  EXPECT_DEATH(velmar_metric_locator_last_text(ml.get(), &whence, &text), "krel_memory_in_cs");
}

TEST(LatestHist, IsDecodedOnReading) {
  const metric_locator_sp ml = locator(METRIC_TYPE_HISTOGRAM);
  uint64_t whence = 0;
  histogram_t *raw = nullptr;
  EXPECT_FALSE(velmar_metric_locator_last_hist(ml.get(), &whence, &raw));
  EXPECT_EQ(velmar_metric_locator_last_missing(ml.get()), METRIC_TYPE_HISTOGRAM);
  const hist_ptr hist(hist_alloc());
  hist_insert(hist.get(), 1.5, 3);
  std::string b64(hist_serialize_b64_estimate(hist.get()), '\0');
  b64.resize(static_cast<size_t>(hist_serialize_b64(hist.get(), b64.data(), b64.size())));
  velmar_metric_locator_update_hist(ml.get(), 9, b64.c_str(), true);
  EXPECT_EQ(velmar_metric_locator_last_missing(ml.get()), 0);
  ASSERT_TRUE(velmar_metric_locator_last_hist(ml.get(), &whence, &raw));
  const hist_ptr read(raw);
  ASSERT_TRUE(read);
  EXPECT_EQ(whence, 9u);
  EXPECT_EQ(hist_sample_count(read.get()), 3u);
  velmar_metric_locator_update_hist(ml.get(), 10, nullptr, true);
  ASSERT_TRUE(velmar_metric_locator_last_hist(ml.get(), &whence, &raw));
  EXPECT_EQ(raw, nullptr);
}

TEST(Latest, ReadersAndWritersMayRunTogether) {
  const metric_locator_sp ml = locator(METRIC_TYPE_ANY), other = locator();
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (uint64_t t = 0; t < 2; t++)
    threads.emplace_back([&, t] {
      for (uint64_t i = 1; i < 3000; i++) {
        update(ml, i * 2 + t);
        update(other, i);
        velmar_metric_locator_update_text(ml.get(), i * 2 + t, std::to_string(i * 2 + t).c_str(), true);
        if (i % 64 == 0) krel_memory_maintenance_ex(1);
      }
    });
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&, t] {
      uint64_t newest = 0;
      for (int i = 0; i < 3000; i++) {
        uint64_t whence[2];
        velmar_metric_type_t type[2];
        velmar_metric_locator_numeric_value_t value[2];
        if (velmar_metric_locator_last2_numeric(ml.get(), whence, type, value)) {
          if (whence[1] < newest || value[1].v_uint64 != whence[1] * 10 || value[0].v_uint64 != whence[0] * 10)
            wrong++;
          if (whence[1] > 0 && whence[0] >= whence[1]) wrong++;
          newest = whence[1];
        }
        velmar_metric_locator_compare_last2_numeric((t ? ml : other).get(), (t ? other : ml).get());
        const krel_memory_section_c section;
        const char *text = nullptr;
        if (velmar_metric_locator_last_text(ml.get(), whence, &text) && text &&
            std::to_string(whence[0]) != text)
          wrong++;
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(latest(ml), "5998,5999");
}
