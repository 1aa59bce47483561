// The configuration of periods, and what a write of one cell brings about.

#include "be/nntbs/nntbs_mgr.h"

#include <gtest/gtest.h>

#include "be/nntbs/nntbs_mgr_config.h"
#include "platform/krel/base/krel_conf.h"
#include "support/log_capture.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"

namespace {

constexpr uint64_t T0 = 1'700'000'000 / 86400 * 86400;

void load(const std::string &nntbs, const std::string &granularity = "1d", const std::string &more = "") {
  krel_assert(krel_conf_load_text(
      "<velmar><raw_database granularity='" + granularity + "'/>" + nntbs + more + "</velmar>", "test.conf"));
}

std::string read(const std::string &nntbs, const std::string &granularity = "1d",
                 const std::string &more = "") {
  load(nntbs, granularity, more);
  auto *const set = new rollup_config_set_t;
  const std::string path = nntbs_mgr_read_config("n1", set);
  rollup_config_init(set);
  std::string periods;
  for (const rollup_config_t *c : set->configs) {
    periods += " " + std::to_string(c->period) + (c->since ? "@" + std::to_string(c->since) : "");
    delete c;
  }
  delete set;
  return path + periods;
}

TEST(nntbs_mgr_config, what_is_read) {
  EXPECT_EQ(read("<nntbs path='/d/{node}/x'><shard period='300'/><shard period='60' since='7'/></nntbs>"),
            "/d/n1/x 60@7 300");
  log_capture_c errors("error");
  EXPECT_EQ(read("<nntbs path='{node}'><shard period='60'/></nntbs>", "1d",
                 "<rollups><rollup period='60'/></rollups>"),
            "n1 60");
  EXPECT_TRUE(errors.contains("warning: <rollups> stanza is deprecated and should be removed"));
}

TEST(nntbs_mgr_config, what_ends_the_start) {
  const std::string shard = "<nntbs path='{node}'><shard period='60'/></nntbs>";
  EXPECT_DEATH(read(""), "<nntbs path=(.|\n)*\\[FATAL\\] nntbs has no path specified");
  EXPECT_DEATH(read("<nntbs path='/d'><shard period='60'/></nntbs>"),
               "\\[FATAL\\] Error: nntbs path doesn't have \\{node\\} in it\\.");
  EXPECT_DEATH(read("<nntbs path='{node}'/>"),
               "<shard period=(.|\n)*\\[FATAL\\] At least one nntbs shard must be defined");
  EXPECT_DEATH(read("<nntbs path='{node}'><shard/></nntbs>"),
               "\\[FATAL\\] invalid period in <nntbs> config stanza");
  EXPECT_DEATH(read("<nntbs path='{node}'><shard period='0'/></nntbs>"),
               "\\[FATAL\\] rollup has an invalid period");
  EXPECT_DEATH(read("<nntbs path='{node}'><shard period='60'/><shard period='60'/></nntbs>"), "stands twice");
  EXPECT_DEATH(read(shard, "never"), "\\[TERMINATE\\] Raw granularity must be set\\.");
  EXPECT_DEATH(
      read("<nntbs path='{node}'><shard period='7'/></nntbs>", "1h"),
      "\\[TERMINATE\\] rollup period 7 isn't a factor of raw shard granularity 3600 \\(and must be\\)\\.");
  EXPECT_DEATH(read("<nntbs path='{node}'><shard period='7200'/></nntbs>", "1h"),
               "rollup period 7200 isn't a factor");
  EXPECT_DEATH(read(shard, "1d", "<rollups><rollup period='61'/></rollups>"),
               "\\[FATAL\\] <rollups> stanza does not match <nntbs> stanza");
  EXPECT_DEATH(read(shard, "1d", "<rollups><rollup/></rollups>"),
               "\\[FATAL\\] invalid period in <rollups> config stanza");
}

nnt_multitype cell_of(uint64_t value) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_UINT64;
  cell.count = 1;
  cell.value.v_uint64 = value;
  return cell;
}

class nntbs_mgr : public testing::Test {
 protected:
  nntbs_mgr() {
    std::string shards;
    for (const char *period : {"60", "300", "600", "3600", "900"})
      shards += std::string("<shard period='") + period + "' size='1d' initial_map_size='1M'/>";
    load("<nntbs path='" + m_dir / "{node}" + "'>" + shards + "</nntbs>");
    // without a database: the metrics carry their ids
    rollup_config_set_t &set = nntbs_mgr_get_rollup_configs();
    const std::string path = nntbs_mgr_read_config("n1", &set);
    rollup_config_init(&set);
    nntbs_init(path, &set, nullptr, nullptr);
  }
  ~nntbs_mgr() override {
    nntbs_mgr_close();
    for (const rollup_config_t *c : nntbs_mgr_get_rollup_configs().configs) delete c;
    nntbs_mgr_get_rollup_configs().configs.clear();
  }
  rollup_config_t *config(size_t i) { return nntbs_mgr_get_rollup_configs().configs[i]; }
  uint64_t stored(uint64_t t, unsigned period) {
    nnt_multitype cell{};
    EXPECT_EQ(nntbs_get_range(t, metric, period, 1, &cell, nullptr, nullptr, nullptr), 1U);
    return cell.type == NNT_TYPE_ABSENT ? UINT64_MAX : cell.value.v_uint64;
  }

  temp_dir_c m_dir;
  const metric_locator_sp metric = make_stored_metric(3, "a");
};

TEST_F(nntbs_mgr, a_cell_goes_up_through_all_periods) {
  std::string error;
  ASSERT_EQ(nntbs_mgr_put(T0 + 240, metric, cell_of(10), &error), 0) << error;
  ASSERT_EQ(nntbs_mgr_put(T0 + 300, metric, cell_of(30), &error), 0) << error;
  EXPECT_EQ(stored(T0, 300), 10U);
  EXPECT_EQ(stored(T0 + 300, 300), 30U);
  EXPECT_EQ(stored(T0, 600), 20U);
  EXPECT_EQ(stored(T0, 900), 20U);
  EXPECT_EQ(stored(T0, 3600), 20U);
  EXPECT_EQ(config(4)->period, 3600U);
  EXPECT_EQ(config(4)->put_calls, 2U);
  // without the rollups, and from a period in the middle: 900 does not come from 600
  ASSERT_EQ(nntbs_mgr_put_specific(config(0), T0 + 1200, metric, cell_of(7), &error, false), 0);
  EXPECT_EQ(stored(T0 + 1200, 300), UINT64_MAX);
  ASSERT_EQ(nntbs_mgr_put_specific(config(2), T0 + 7200, metric, cell_of(7), &error, true), 0);
  EXPECT_EQ(stored(T0 + 7200, 600), 7U);
  EXPECT_EQ(stored(T0 + 7200, 900), UINT64_MAX);
  EXPECT_NE(nntbs_mgr_put(T0, {}, cell_of(1), &error), 0);
  EXPECT_NE(error, "");
}

TEST_F(nntbs_mgr, collapsed_reads) {
  std::vector<nnt_multitype> cells;
  for (uint64_t i = 0; i < 7; ++i) cells.push_back(cell_of(i));
  ASSERT_EQ(nntbs_mgr_put_range(T0 * 1000, metric, cells.data(), 7, 60000), 0);
  std::vector<nnt_multitype> got(7);
  std::string error;
  EXPECT_EQ(nntbs_mgr_get_range(T0, metric, config(0), 3, 7, got.data(), nullptr, nullptr, &error), 3);
  EXPECT_EQ(got[0].value.v_uint64, 1U);
  EXPECT_EQ(got[0].count, 3U);
  EXPECT_EQ(got[1].value.v_uint64, 4U);
  EXPECT_EQ(got[2].value.v_uint64, 6U);
  EXPECT_EQ(got[2].count, 1U);
  got.assign(7, {});
  EXPECT_EQ(nntbs_mgr_get_range(T0, metric, config(0), 1, 7, got.data(), nullptr, nullptr, &error), 7);
  EXPECT_EQ(memcmp(got.data(), cells.data(), 7 * sizeof(nnt_multitype)), 0);
  EXPECT_EQ(config(0)->get_count, 14U);
  EXPECT_EQ(error, "");
  EXPECT_EQ(nntbs_mgr_get_range(T0, make_metric("none"), config(0), 1, 7, got.data(), nullptr, nullptr, &error),
            -1);
  EXPECT_EQ(error, "unknown error");
}

}  // namespace
