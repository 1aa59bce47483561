// The periods of histogram rollups as configured, and slots on their way into the shards.

#include <gtest/gtest.h>

#include "be/hist/hist_rollup_config.h"
#include "be/hist/hist_rollup_target.h"
#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "db/raw/reader.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"
#include "support/log_capture.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"
#include "util/concurrency/tolv_timed_mock.h"
#include "util/histogram_entries.h"

namespace {

constexpr uint64_t DAY = 86400;

hist_config_t read_config(const std::string &histogram) {
  krel_assert(krel_conf_load_text("<velmar>" + histogram + "</velmar>", "test.conf"));
  return hist_mgr_read_config("node-1", DAY);
}
std::string with(const std::string &rollups) {
  return "<histogram location='/data/{node}/hist'>" + rollups + "</histogram>";
}

TEST(hist_rollup_config, periods_in_order_with_their_parents) {
  const hist_config_t config = read_config(
      with("<rollup period='3600' granularity='4w' retention='1w1d'/><rollup period='60' granularity='1d'/>"
           "<group><rollup period='86400' granularity='52w'/></group><rollup period='120' granularity='2h'/>"));
  EXPECT_EQ(config.path, "/data/node-1/hist");
  ASSERT_EQ(config.rollups.size(), 4U);
  const unsigned periods[] = {60, 120, 3600, 86400};
  const int parents[] = {-1, 0, 1, 2};
  for (size_t i = 0; i < 4; i++) {
    EXPECT_EQ(config.rollups[i].period, periods[i]);
    EXPECT_EQ(config.rollups[i].index, static_cast<int>(i));
    EXPECT_EQ(config.rollups[i].parent_idx, parents[i]) << i;
  }
  EXPECT_EQ(config.rollups[2].retention_s, 8 * DAY);
  EXPECT_EQ(config.rollups[0].retention_s, 0U);
  EXPECT_EQ(config.rollups[1].granularity_s, 7200U);
}

TEST(hist_rollup_config, what_is_wrong_ends_the_start) {
  const std::string good = "<rollup period='60' granularity='1d'/>";
  EXPECT_DEATH(read_config(with("")), "At least one histogram rollup must be defined");
  EXPECT_DEATH(read_config(with("<rollup granularity='1d'/>")), "rollup has an invalid period");
  EXPECT_DEATH(read_config(with("<rollup period='0' granularity='1d'/>")), "rollup has an invalid period");
  EXPECT_DEATH(read_config(with("<rollup period='60'/>")),
               "Histogram rollup granularity settings are required");
  EXPECT_DEATH(read_config(with("<rollup period='60' granularity='90m'/>")), "must be whole hours");
  EXPECT_DEATH(read_config(with("<rollup period='60' granularity='x'/>")),
               "@granularity parameter for period 60");
  EXPECT_DEATH(read_config(with("<rollup period='60' granularity='1d' retention='5'/>")),
               "could not parse //histogram/@retention parameter");
  EXPECT_DEATH(read_config(with("<rollup period='7' granularity='1d'/>")), "isn't a factor of raw histogram");
  EXPECT_DEATH(read_config(with(good + good)), "given twice");
  EXPECT_DEATH(read_config(with(good + "<rollup period='100' granularity='1d'/>")),
               "Rollup with period 100 can't rollup from any smaller period");
  EXPECT_DEATH(read_config("<histogram location='/data/hist'>" + good + "</histogram>"),
               "histogram location doesn't have \\{node\\} in it");
}

// A store of one period, on today's clock: what retention leaves out is measured by that.
class hist_rollup_target : public testing::Test {
 protected:
  struct writer_t : db::raw::raw_writer_asynch_c {
    void write_set_asynch(db::raw::raw_entry_c *entries, size_t count,
                          db::raw::is_raw_write_closure_t *closure) override {
      writes++;
      db::raw::asynch_entry_batch_write(factory, entries, count, closure);
    }
    void write_prev_set_asynch(db::raw::raw_entry_c *, size_t, db::raw::is_raw_write_closure_t *) override {}
    void write_numeric_asynch(std::span<const db::raw::nom_sample_t>,
                              db::raw::is_raw_write_closure_t *) override {}
    db::raw::raw_shard_factory_c *factory = nullptr;
    size_t writes = 0;
  };

  hist_rollup_target() {
    velmar_db_admin_rocksdb_init_types(&m_types);
    velmar_db_raw_nom::data_db_params_t db_params;
    db_params.datatype = velmar_db_raw_nom::histogram;
    db_params.conflict_resolver = velmar_db_raw_nom::conflict_resolver_e::newest;
    db_params.manager = &m_manager;
    db_params.type = velmar_db_raw_nom_create_type(&m_types);
    m_dbs = std::make_unique<velmar_db_raw_nom::factory_c>(db_params);
    db::raw::raw_shard_factory_params_t params;
    params.basedir = m_dir.path();
    params.granularity_s = DAY;
    params.rolls_up = false;
    params.db_factory = m_dbs.get();
    params.timer_factory = &m_timers;
    static_cast<tolv_timed_mock::clock_c *>(m_timers.get_clock())
        ->set_time({static_cast<time_t>(krel_now_ms() / 1000), 0});
    m_shards = std::make_unique<db::raw::raw_shard_factory_c>(params);
    m_writer.factory = m_shards.get();
  }
  ~hist_rollup_target() override {
    m_shards.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
  }
  // Slots of `count` samples each.
  bool write(const std::vector<uint64_t> &times_ms, uint64_t count, uint64_t retention_s = 0) {
    const hist_ptr histogram(hist_alloc());
    hist_insert(histogram.get(), 1.0, count);
    std::vector<db::raw::histogram_cell_t> cells;
    for (const uint64_t ts_ms : times_ms) cells.push_back({ts_ms, histogram.get()});
    hist_rollup_target_c target({60, 0, -1, retention_s, DAY}, &m_writer);
    return target.write_histograms(m_metric, cells);
  }
  std::vector<std::pair<uint64_t, uint64_t>> read() {
    std::vector<std::pair<uint64_t, uint64_t>> slots;
    std::string error;
    EXPECT_TRUE(db::raw::reader_c(m_shards.get())
                    .read_range(
                        m_metric, 7, 0, UINT32_MAX * 1000ull,
                        [&](uint64_t ts_ms, db::raw::raw_value_c &&value) {
                          const auto *bytes = value.get_data().storage.v_bytes;
                          const hist_ptr histogram(hist_alloc());
                          hist_deserialize(histogram.get(), bytes->bytes, bytes->length);
                          slots.emplace_back(ts_ms, hist_sample_count(histogram.get()));
                          return true;
                        },
                        &error));
    return slots;
  }

  const temp_dir_c m_dir;
  tolv_timed_mock::factory_c m_timers;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::unique_ptr<velmar_db_raw_nom::factory_c> m_dbs;
  std::unique_ptr<db::raw::raw_shard_factory_c> m_shards;
  writer_t m_writer;
  const metric_locator_sp m_metric = make_stored_metric(7, "h", 1, 1, METRIC_TYPE_HISTOGRAM);
  const uint64_t m_day_ms = (krel_now_ms() / 1000 / DAY - 3) * DAY * 1000;
};

TEST_F(hist_rollup_target, a_slot_takes_the_place_of_what_was_there) {
  const uint64_t day = m_day_ms, next = day + DAY * 1000;
  ASSERT_TRUE(write({day, day + 60000, next}, 9));
  ASSERT_TRUE(write({day, next, next + 60000}, 2));  // fewer than before
  using slots_t = std::vector<std::pair<uint64_t, uint64_t>>;
  const slots_t expected = {{day, 2}, {day + 60000, 9}, {next, 2}, {next + 60000, 2}};
  EXPECT_EQ(read(), expected);
  for (const uint64_t at_ms : {day, next})
    m_shards->find_shard_for(at_ms, db::raw::MUST_EXIST).shard->get_db()->flush();
  EXPECT_EQ(read(), expected);
  ASSERT_TRUE(write({day}, 5));
  EXPECT_EQ(read().front().second, 5U);
}

TEST_F(hist_rollup_target, many_slots_go_in_pieces) {
  std::vector<uint64_t> times;
  for (uint64_t i = 0; i < 5000; i++) times.push_back(m_day_ms + i * 60000);
  ASSERT_TRUE(write(times, 1));
  EXPECT_EQ(m_writer.writes, 3U);
  EXPECT_EQ(read().size(), 5000U);
}

TEST_F(hist_rollup_target, what_the_retention_would_remove_is_left_out) {
  ASSERT_TRUE(write({m_day_ms, m_day_ms + 2 * DAY * 1000}, 1, 2 * DAY));
  ASSERT_EQ(read().size(), 1U);
  EXPECT_EQ(read()[0].first, m_day_ms + 2 * DAY * 1000);
}

TEST_F(hist_rollup_target, a_slot_that_has_no_shard_is_a_failure) {
  const log_capture_c log("error");
  EXPECT_FALSE(write({m_day_ms, m_day_ms + 100 * DAY * 1000}, 1));
  EXPECT_TRUE(log.contains("1 of 2 slots of period 60 were not stored"));
  EXPECT_EQ(read().size(), 1U);
}

}  // namespace
