// Which shard holds a time, what is found at start, what goes with time.

#include "db/ranged/nntbs/rollup_shard_mgr.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/krel/base/krel_conf.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "util/velmar_stats.h"

namespace db::ranged::nntbs {
namespace {

namespace fs = std::filesystem;
constexpr uint64_t SPAN = 127 * 60, DAY = 12 * SPAN;

class rollup_shard_mgr_test_c : public testing::Test {
 protected:
  rollup_shard_mgr_params_t params(uint64_t length = DAY, uint64_t retention = 0) {
    rollup_shard_mgr_params_t p;
    p.root_path = m_dir.path();
    p.periods = {{60, length, retention, 1 << 20, nullptr}, {300, 127 * 300, 0, 1 << 20, nullptr}};
    p.clock = &m_clock;
    return p;
  }
  void make_directory(const std::string &name) { fs::create_directories(m_dir / name); }
  static void put(rollup_shard_mgr_c &mgr, uint64_t sid, uint64_t ts) {
    auto [error, shard] = mgr.open_or_create(ts, 60);
    ASSERT_FALSE(error) << error.message();
    nntbs_block_t block;
    block_init(&block, 0);
    block_set_cell(&block, block_slot_of(ts, 60), {NNT_TYPE_UINT64, 1, 0, 0, {}, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    block_seal(&block);
    auto [txn_error, txn] = shard->start_write_transaction();
    ASSERT_FALSE(txn_error);
    ASSERT_FALSE(txn->put(sid, block_floor_of(ts, 60), block));
    ASSERT_FALSE(txn->commit_write());
  }
  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (const auto &entry : fs::directory_iterator(m_dir.path())) out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }

  temp_dir_c m_dir;
  fake_clock_c m_clock;
};

using mgr = rollup_shard_mgr_test_c;

TEST_F(mgr, finding_and_making) {
  rollup_shard_mgr_c m(params());
  auto [error, shard] = m.open(5, 60);
  EXPECT_FALSE(error);
  EXPECT_FALSE(shard);
  EXPECT_EQ(m.open(5, 77).first, storage_errc_e::no_period_settings);
  EXPECT_EQ(m.open_or_create(5, 77).first, storage_errc_e::no_period_settings);
  const rollup_shard_sp first = m.open_or_create(DAY - 1, 60).second;
  ASSERT_TRUE(first);
  EXPECT_EQ(first->path(), m_dir / "60_0-91440");
  EXPECT_EQ(m.open(0, 60).second, first);
  const rollup_shard_sp second = m.open_or_create(DAY, 60).second;  // the ceiling belongs to the next
  EXPECT_NE(second, first);
  EXPECT_EQ(second->floor_s(), DAY);
  EXPECT_EQ(m.get_start_of_last_shard(60), DAY);
  EXPECT_EQ(m.get_start_of_last_shard(300), 0U);

  second->set_maintenance_mode(OFFLINE);
  EXPECT_EQ(m.open(DAY, 60).first, storage_errc_e::wrong_mode);
  EXPECT_EQ(m.open_or_create(DAY, 60).first, storage_errc_e::wrong_mode);
  EXPECT_EQ(m.open(DAY, 60, shard_modes_c(ONLINE) | OFFLINE).second, second);
  EXPECT_TRUE(m.is_offline(60, 0, DAY + 1));
  EXPECT_FALSE(m.is_offline(60, 0, DAY));
  EXPECT_FALSE(m.is_offline(300, 0, UINT64_MAX));
}

TEST_F(mgr, a_floor_below_the_least) {
  auto p = params();
  p.minimum_shard_floor = DAY;
  rollup_shard_mgr_c m(p);
  log_capture_c errors("error");
  EXPECT_EQ(m.open_or_create(DAY - 1, 60).first, storage_errc_e::floor_too_low);
  EXPECT_TRUE(
      errors.contains("open_or_create timeshard 91439 (period 60) failed - floor (0) below minimum (91440)"));
  EXPECT_FALSE(m.open(DAY - 1, 60).second);
  EXPECT_TRUE(m.open_or_create(DAY, 60).second);
  EXPECT_EQ(names(), std::vector<std::string>{"60_91440-182880"});
}

TEST_F(mgr, what_is_found_at_start) {
  for (const char *name : {"60_0-91440", "77_0-9779", "60_100-200", "60_7620-99060", "060_91440-182880",
                           "60_182880-274320.deleting", "60_182880-274320.deleting-3", "notes"})
    make_directory(name);
  std::ofstream(m_dir / "60_99999-0") << "a file";
  log_capture_c errors("error"), notices("notice");
  rollup_shard_mgr_c m(params());
  EXPECT_TRUE(m.open(1, 60).second);
  EXPECT_FALSE(m.open(DAY, 60).second);  // neither of its two claims
  EXPECT_TRUE(notices.contains(
      "Found an unconfigured shard (ignoring): start: 0 end: 9779, period: 77, full name: 77_0-9779"));
  EXPECT_TRUE(errors.contains("60_100-200 is not named as a shard of whole blocks (ignoring)"));
  EXPECT_TRUE(errors.contains("60_7620-99060 overlaps another one in time (ignoring)"));
  const std::vector<std::string> want = {"060_91440-182880", "60_0-91440", "60_100-200", "60_7620-99060",
                                         "60_99999-0",       "77_0-9779",  "notes"};
  EXPECT_EQ(names(), want);
  put(m, 1, 60);  // an empty directory is a shard that was about to be
  EXPECT_TRUE(fs::exists(m_dir / "60_0-91440/data.mdb"));
}

// The length of new shards was changed: old shards answer for their time, new ones keep clear of them.
TEST_F(mgr, another_length) {
  {
    rollup_shard_mgr_c m(params(2 * SPAN));
    put(m, 1, 5 * SPAN);  // 4 to 6
  }
  rollup_shard_mgr_c m(params(10 * SPAN));
  EXPECT_EQ(m.open(4 * SPAN, 60).second->floor_s(), 4 * SPAN);
  const rollup_shard_sp before = m.open_or_create(SPAN, 60).second,
                        behind = m.open_or_create(9 * SPAN, 60).second;
  EXPECT_EQ(before->floor_s(), 0U);
  EXPECT_EQ(before->ceiling_s(), 4 * SPAN);
  EXPECT_EQ(behind->floor_s(), 6 * SPAN);
  EXPECT_EQ(behind->ceiling_s(), 10 * SPAN);
  for (uint64_t i = 0; i < 10; ++i) EXPECT_TRUE(m.open(i * SPAN, 60).second) << i;
}

TEST_F(mgr, a_damaged_shard_is_offline_from_the_start) {
  {
    rollup_shard_mgr_c m(params());
    put(m, 1, 60);
    put(m, 1, DAY + 60);
  }
  fs::resize_file(m_dir / "60_0-91440/data.mdb", 5000);
  rollup_shard_mgr_c m(params());
  EXPECT_EQ(m.open(60, 60).first, storage_errc_e::wrong_mode);
  EXPECT_EQ(m.open_or_create(60, 60).first, storage_errc_e::wrong_mode);
  uint64_t ts;
  ASSERT_TRUE(m.get_epoch(1, 60, &ts));
  EXPECT_EQ(ts, DAY + 60);
  m.delete_before(1, 60, UINT64_MAX);
  m.open(DAY, 60).second->set_maintenance_mode(OFFLINE_PENDING);
  m.open_or_create(2 * DAY, 60);
  m.report_shard_trigger();
  const std::string stats = stats_recorder_output_json(velmar_stats_get_recorder(), true, false);
  const std::string period = stats.substr(stats.find("\"60\":{"));
  for (const char *kind : {"online", "offline", "corrupt"})
    EXPECT_NE(period.find(std::string("\"shards`") + kind + "_shards\":1"), std::string::npos)
        << period.substr(0, 500);
  m.close_all();
  EXPECT_EQ(fs::file_size(m_dir / "60_0-91440/data.mdb"), 5000U);
}

TEST_F(mgr, epoch_and_apocalypse) {
  rollup_shard_mgr_c m(params());
  uint64_t ts = 0;
  EXPECT_FALSE(m.get_epoch(1, 60, &ts));
  for (const uint64_t at : {DAY + 600, 3 * DAY + 1200, 5 * DAY + 60}) put(m, 1, at);
  put(m, 2, 9 * DAY);
  put(m, 2, 0);
  EXPECT_TRUE(m.get_epoch(1, 60, &ts));
  EXPECT_EQ(ts, DAY + 600);
  EXPECT_TRUE(m.get_apocalypse(1, 60, &ts));
  EXPECT_EQ(ts, 5 * DAY + 60);
  EXPECT_FALSE(m.get_apocalypse(1, 300, &ts));
  EXPECT_FALSE(m.get_apocalypse(1, 77, &ts));
}

TEST_F(mgr, iterator) {
  rollup_shard_mgr_c m(params());
  for (const uint64_t at : {5UL, 1UL, 3UL, 0UL}) m.open_or_create(at * DAY, 60);
  const auto walk = [&](uint64_t epoch, uint64_t apocalypse) {
    std::vector<uint64_t> floors;
    auto [error, it] = m.create_iterator(60, epoch, apocalypse);
    EXPECT_FALSE(error);
    for (; it.is_valid(); it.advance()) floors.push_back(it.get()->floor_s() / DAY);
    return floors;
  };
  using floors_t = std::vector<uint64_t>;
  EXPECT_EQ(walk(0, UINT64_MAX), (floors_t{0, 1, 3, 5}));
  EXPECT_EQ(walk(DAY - 1, 3 * DAY), (floors_t{0, 1, 3}));
  EXPECT_EQ(walk(DAY, 3 * DAY - 1), (floors_t{1}));
  EXPECT_EQ(walk(6 * DAY, 7 * DAY), floors_t{});
  EXPECT_EQ(m.create_iterator(77, 0, 1).first, storage_errc_e::no_period_settings);
}

TEST_F(mgr, retention) {
  constexpr uint64_t KEEP = 3 * DAY;
  rollup_shard_mgr_c m(params(DAY, KEEP));
  for (uint64_t i = 10; i < 16; ++i) put(m, 1, i * DAY);
  m.open_or_create(0, 300);
  m_clock.set_now_us((11 * DAY + KEEP) * 1'000'000);
  EXPECT_EQ(m.get_max_oldest_retention_time_s(), 0U);  // the other period keeps for ever
  m.perform_retention();
  EXPECT_TRUE(m.open(10 * DAY, 60).second);  // its ceiling is just that second
  EXPECT_EQ(m.get_absolute_epoch(60), 11 * DAY);
  EXPECT_EQ(m.get_absolute_epoch(300), 0U);
  m_clock.advance_s(1);
  {
    auto [error, in_use] = m.open(10 * DAY, 60).second->start_read_transaction();
    m.perform_retention();
    EXPECT_TRUE(m.open(10 * DAY, 60).second);
  }
  m.perform_retention();
  EXPECT_FALSE(m.open(10 * DAY, 60).second);
  EXPECT_TRUE(m.open(11 * DAY, 60).second);
  EXPECT_TRUE(m.open(0, 300).second);
  m_clock.advance_s(2 * DAY);
  m.perform_retention();
  const std::vector<std::string> want = {"300_0-38100", "60_1188720-1280160", "60_1280160-1371600",
                                         "60_1371600-1463040"};
  EXPECT_EQ(names(), want);
  put(m, 1, 10 * DAY);  // and may come again
  EXPECT_TRUE(m.open(10 * DAY, 60).second);
}

TEST_F(mgr, retention_beside_users) {
  rollup_shard_mgr_c m(params(DAY, DAY));
  for (uint64_t i = 0; i < 6; ++i) put(m, 1, i * DAY);
  std::atomic<bool> stop{false};
  std::vector<std::thread> users;
  for (int n = 0; n < 3; ++n)
    users.emplace_back([&] {
      for (uint64_t i = 0; !stop; ++i) {
        const auto [error, shard] = m.open(i % 6 * DAY, 60);
        if (!shard) continue;
        auto [txn_error, txn] = shard->start_read_transaction();
        ASSERT_TRUE(!txn_error || txn_error == storage_errc_e::wrong_mode) << txn_error.message();
        uint64_t floor = 0;
        if (txn) {
          ASSERT_FALSE(txn->seek(1, &floor, nullptr));
        }
      }
    });
  for (uint64_t i = 1; i <= 7; ++i) {
    m_clock.set_now_us(((i + 1) * DAY + 1) * 1'000'000);
    while (m.open((i - 1) * DAY, 60).second) m.perform_retention();
  }
  stop = true;
  for (std::thread &t : users) t.join();
  EXPECT_TRUE(names().empty());
}

TEST_F(mgr, state) {
  rollup_shard_mgr_c m(params());
  m.init_rollup_diskspace();
  std::string text;
  m.write_state(&text);
  EXPECT_EQ(text.rfind("  \"rollup_60\":{\n    \"fs\": {\n      \"id\": ", 0), 0U) << text;
  EXPECT_NE(text.find("  \"rollup_300\":{\n"), std::string::npos);
  EXPECT_EQ(text.find("\"totalMb\": 0.000000"), std::string::npos);
}

rollup_shard_mgr_params_t read(const std::string &nntbs) {
  krel_assert(krel_conf_load_text("<velmar>" + nntbs + "</velmar>", "test.conf"));
  return read_rollup_shard_mgr_params("/x", {});
}

TEST_F(mgr, configuration) {
  log_capture_c errors("error"), notices("notice");
  auto p = read(
      "<nntbs minimum_shard_floor='5' shard_storage_type='mdbx' lmdb_flags='nometasync, MDB_NOTLS|bogus'>"
      "<shard period='60' size='1d' retention='2d' initial_map_size='5000'/>"
      "<shard period='300' size='1s' initial_map_size='-1'/></nntbs>");
  EXPECT_EQ(p.minimum_shard_floor, 5U);
  EXPECT_EQ(p.storage, rollup_storage_e::mdbx);
  EXPECT_EQ(p.lmdb_flags, 0x240000U);
  EXPECT_TRUE(errors.contains("LMDB flag bogus requested, but unknown. Ignoring"));
  EXPECT_EQ(p.periods[0].length_seconds, 91440U);
  EXPECT_EQ(p.periods[0].retention_length_seconds, 175260U);
  EXPECT_EQ(p.periods[0].initial_map_size, 8192U);
  EXPECT_EQ(p.periods[1].length_seconds, 38100U);
  EXPECT_EQ(p.periods[1].retention_length_seconds, 0U);
  EXPECT_EQ(p.periods[1].initial_map_size, 1ULL << 33);
  EXPECT_TRUE(notices.contains("NNTBS timeshard period: 60, requested length_seconds: 86400"));
  EXPECT_TRUE(notices.contains("NNTBS timeshard period: 60, adjusted length_seconds: 91440"));
  EXPECT_TRUE(notices.contains("Using mdbx storage for rollup shards"));
  p = read("<nntbs><shard period='60' size='1d' initial_map_size='2M'/></nntbs>");
  EXPECT_EQ(p.periods[0].initial_map_size, 2U << 20);
  EXPECT_EQ(p.lmdb_flags, 0x1a10000U);
  EXPECT_EQ(p.storage, rollup_storage_e::lmdb);
}

TEST_F(mgr, a_configuration_that_ends_the_start) {
  EXPECT_DEATH(read("<nntbs/>"), "At least one NNTBS shard must be defined");
  EXPECT_DEATH(read("<nntbs><shard size='1d'/></nntbs>"), "could not find //nntbs/shards/@period parameter");
  for (const char *size : {"", "size='x'", "size='0s'", "size='60'", "size='100y'"})
    EXPECT_DEATH(read(std::string("<nntbs><shard period='60' ") + size + "/></nntbs>"),
                 "could not parse //nntbs/shards/@size parameter");
  EXPECT_DEATH(read("<nntbs><shard period='60' size='1d' retention='soon'/></nntbs>"),
               "could not parse //nntbs/shards/@retention parameter");
}

}  // namespace
}  // namespace db::ranged::nntbs
