#include "ingestion/metric_validation.h"

#include <gtest/gtest.h>

#include "platform/krel/base/krel_conf.h"

namespace db::ingestion {
namespace {

constexpr uint64_t DAY_MS = 86400000, NOW = 1700000000000;

TEST(cleanse_time, the_unit_follows_from_the_size) {
  const uint64_t forever = UINT64_MAX;
  const auto time = [](uint64_t whence) { return cleanse_time(whence, forever, NOW).time; };
  EXPECT_EQ(time(1500000000), 1500000000000U);
  EXPECT_EQ(time(1500000000000), 1500000000000U);
  EXPECT_EQ(time(999999999998), 999999999998000U);
  EXPECT_EQ(time(999999999999), 999999999999U);
  EXPECT_EQ(time(999999999999998), 999999999999998U);
  EXPECT_EQ(time(999999999999999), 999999999999U);
  EXPECT_EQ(time(0), 0U);
}

TEST(cleanse_time, the_window_is_symmetric_and_its_edges_belong_to_it) {
  const uint64_t width = 3650 * DAY_MS;
  for (const uint64_t inside : {NOW - width, NOW, NOW + width}) {
    const auto r = cleanse_time(inside, width, NOW);
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.verdict, cleanse_time_verdict_e::ok);
  }
  EXPECT_EQ(cleanse_time(NOW - width - 1, width, NOW).verdict, cleanse_time_verdict_e::old);
  const auto future = cleanse_time(NOW + width + 1, width, NOW);
  EXPECT_FALSE(future.valid);
  EXPECT_EQ(future.verdict, cleanse_time_verdict_e::future);
  EXPECT_EQ(future.time, NOW + width + 1);
}

TEST(cleanse_time, huge_and_negative_times_do_not_overflow) {
  EXPECT_EQ(cleanse_time(UINT64_MAX >> 1, DAY_MS, NOW).verdict, cleanse_time_verdict_e::future);
  const auto negative = cleanse_time(static_cast<uint64_t>(-5), DAY_MS, NOW);
  EXPECT_FALSE(negative.valid);
  EXPECT_EQ(negative.verdict, cleanse_time_verdict_e::old);
  EXPECT_EQ(negative.time, 0U);
}

TEST(metric_validation, reads_its_threshold) {
  ASSERT_TRUE(krel_conf_load_text("<velmar><validation metric_age_threshold='1d'/></velmar>", "x.conf"));
  metric_validation_init();
  EXPECT_TRUE(cleanse_time_at(NOW - DAY_MS, NOW).valid);
  EXPECT_FALSE(cleanse_time_at(NOW - DAY_MS - 1, NOW).valid);
  set_max_ingestion_age(3650 * DAY_MS);
}

TEST(metric_validation_death, a_key_and_its_deprecated_twin_stop_the_start) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto init = [](const char *text) {
    krel_conf_load_text(text, "x.conf");
    metric_validation_init();
  };
  EXPECT_DEATH(init("<velmar><validation metric_age_threshold='1d' metric_age_threshold_in_ms='1d'/></velmar>"),
               "cannot use both validation/@metric_age_threshold_in_ms and validation/@metric_age_threshold");
  EXPECT_DEATH(
      init("<velmar><validation metric_log_age_threshold='1d'/><old_data_logging metric_age_threshold='2d'/>"
           "</velmar>"),
      "cannot use both old_data_logging/@metric_age_threshold");
  EXPECT_DEATH(init("<velmar><validation metric_age_threshold='soon'/></velmar>"),
               "could not parse metric_age_threshold parameter in old_data_logging config: soon");
}

}  // namespace
}  // namespace db::ingestion
