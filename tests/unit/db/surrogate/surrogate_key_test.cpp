#include "db/surrogate/surrogate_key.h"

#include <gtest/gtest.h>

using db::surrogate::key_c;
using ms_t = std::chrono::milliseconds;

static metric_locator_sp locator(std::string_view name) {
  const uint8_t uuid[16] = {1};
  const mem_reader_t reader = {name.data(), name.size()};
  return metric_locator_adopt(velmar_metric_locator_create(uuid, &reader, METRIC_TYPE_NUMERIC));
}

TEST(SurrogateKey, SettingDataResetsTheBounds) {
  const metric_locator_sp ml = locator("a|ST[b:c]");
  key_c key;
  EXPECT_FALSE(key.is_valid());
  EXPECT_DEATH(key.get_stream_tags(), "_valid");
  key.set_data(ml, ms_t(5), ms_t(1), ms_t(9));
  EXPECT_EQ(key.get_upper_bound(), ms_t(9));
  key.set_data(ml, ms_t(6));
  EXPECT_EQ(key.get_lower_bound().count(), 0);
  EXPECT_EQ(key.get_upper_bound().count(), INT64_MAX);
  EXPECT_EQ(mem_reader_view(key.get_metric_name_buf()), "a");
  EXPECT_EQ(key.get_stream_tags()->count, 1);
  EXPECT_EQ(key.get_uuid()[0], 1);
}

TEST(SurrogateKey, AKeyWithoutDataLeavesTheTargetOfACopyAlone) {
  const metric_locator_sp a = locator("a"), b = locator("b");
  key_c key, other;
  key.set_data(a, ms_t(5));
  key = other;
  ASSERT_TRUE(key.is_valid());
  key = key_c();
  ASSERT_TRUE(key.is_valid());
  other.set_data(b, ms_t(7), ms_t(1), ms_t(9));
  other.set_force_write(true);
  key = other;
  EXPECT_EQ(key.get_metric_locator(), b);
  EXPECT_EQ(key.get_timestamp(), ms_t(7));
  EXPECT_EQ(key.get_lower_bound(), ms_t(1));
  EXPECT_TRUE(key.is_force_write());
  EXPECT_EQ(a->ref_cnt, 1u);
  EXPECT_EQ(b->ref_cnt, 3u);
  const key_c moved = std::move(other);
  EXPECT_FALSE(other.is_valid());  // NOLINT: what a move leaves behind is told
  EXPECT_EQ(b->ref_cnt, 3u);
}
