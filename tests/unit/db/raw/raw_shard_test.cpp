// Shards of time: where they lie, how they come, go and change their modes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "db/raw/raw_shard_factory.h"
#include "db/raw/raw_writer_asynch_shim.h"
#include "db/raw/scanner.h"
#include "support/temp_dir.h"
#include "unit/db/raw/fake_store.h"
#include "util/concurrency/tolv_timed_mock.h"

namespace db::raw {
namespace {

constexpr uint64_t DAY = 86400, NOW = 1700006400;  // a midnight
static_assert(NOW % DAY == 0);

std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(granule_adjust, aligns_inside_the_gap_and_not_too_far_ahead) {
  const granule_adjust_c adjust(7 * DAY, DAY);
  uint64_t start = 0, end = 0;
  ASSERT_TRUE(adjust.try_adjust((NOW + 5) * 1000 + 1, NOW, &start, &end));
  EXPECT_EQ(start, NOW);
  EXPECT_EQ(end, NOW + DAY);
  start = NOW + 1, end = 0;
  EXPECT_FALSE(adjust.try_adjust((NOW + 5) * 1000, NOW, &start, &end));
  start = 0, end = NOW + DAY - 1;
  EXPECT_FALSE(adjust.try_adjust((NOW + 5) * 1000, NOW, &start, &end));
  start = end = 0;
  EXPECT_TRUE(adjust.try_adjust((NOW + 7 * DAY) * 1000, NOW, &start, &end));
  start = end = 0;
  EXPECT_FALSE(adjust.try_adjust((NOW + 8 * DAY) * 1000, NOW, &start, &end));
  EXPECT_EQ(start, 0U);
}

TEST(scanner, names) {
  uint64_t s, e;
  using enum scanner::parse_result_e;
  EXPECT_EQ(scanner::parse_shard_file_name("1600000000-1600604800", &s, &e), active);
  EXPECT_EQ(s, 1600000000U);
  EXPECT_EQ(e, 1600604800U);
  EXPECT_EQ(scanner::parse_shard_file_name("1600000000-1600604800.deleting", &s, &e), deleting);
  EXPECT_EQ(scanner::parse_shard_file_name("1600000000-1600604800.deleting-3", &s, &e), deleting);
  for (const char *bad : {"160000000-1600604800", "1600000000-160060480", "1600000000-1600604800.deletin",
                          "1600000000-1600604800.deleting-", "1600000000_1600604800", "1600000000-1600604800x",
                          "", "1600604800-1600000000"})
    EXPECT_EQ(scanner::parse_shard_file_name(bad, &s, &e), not_recognized) << bad;
}

TEST(nom_rollup_progress, every_change_is_on_disk) {
  const temp_dir_c dir;
  nom_rollup_progress_c progress(dir.path());
  const std::string file = dir.path() + "/rollup_progress_status";
  progress.mark_dirty();
  EXPECT_EQ(read_file(file),
            "{\n\t\"rollup_in_progress\": false,\n\t\"dirty\": true,\n\t\"finished\": false\n}\n");
  progress.mark_clean();
  progress.start_rollup();
  EXPECT_TRUE(nom_rollup_progress_c(dir.path()).rollup_in_progress());
  progress.mark_dirty();  // a write during the rollup
  progress.mark_finished();
  EXPECT_FALSE(progress.is_finished());
  progress.start_rollup();
  progress.mark_finished();
  EXPECT_TRUE(nom_rollup_progress_c(dir.path()).is_finished());
  progress.mark_dirty();
  EXPECT_FALSE(progress.is_finished());
}

TEST(nom_rollup_progress, a_file_that_cannot_be_read_counts_as_dirty) {
  const temp_dir_c dir;
  std::ofstream(dir.path() + "/rollup_progress_status") << "{\n\t\"rollup_in_";
  std::ofstream(dir.path() + "/rollup_progress_status.tmp") << "left over";
  EXPECT_TRUE(nom_rollup_progress_c(dir.path()).is_dirty());
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/rollup_progress_status.tmp"));
}

TEST(rollup_quiescent_time, changes_at_most_once_a_minute_and_survives) {
  const temp_dir_c dir;
  {
    rollup_quiescent_time_c time(dir.path() + "/shard", 1000);
    EXPECT_TRUE(time.is_new_shard());
    EXPECT_EQ(time.get_last_write_ts(), 1000U);
    time.set_last_write_ts(1001);
    EXPECT_EQ(time.get_last_write_ts(), 1020U);
    time.set_last_write_ts(1020);
    EXPECT_EQ(time.get_last_write_ts(), 1020U);
  }
  EXPECT_EQ(std::filesystem::file_size(dir.path() + "/shard/last_write_ts.bin"), 8U);
  const rollup_quiescent_time_c time(dir.path() + "/shard", 5000);
  EXPECT_FALSE(time.is_new_shard());
  EXPECT_EQ(time.get_last_write_ts(), 1020U);
}

struct recording_manager_t : shard_manager_c {
  void schedule_rollup(const shard_sp &shard) override { rollups.push_back(shard); }
  void schedule_delete(const shard_sp &shard) override { deletes.push_back(shard); }
  std::vector<shard_sp> rollups, deletes;
};

class raw_shard : public testing::Test {
 protected:
  raw_shard() {
    set_now(NOW);
    open();
  }
  void set_now(uint64_t now_s) {
    const struct timeval until = {static_cast<time_t>(now_s), 0};
    static_cast<tolv_timed_mock::runner_c *>(timers.get_default_runner())->run_until(until);
  }
  void open() {
    raw_shard_factory_params_t params;
    params.basedir = dir.path();
    params.description = "test";
    params.granularity_s = DAY;
    params.min_delete_age_s = 10 * DAY;
    params.db_factory = &dbs;
    params.timer_factory = &timers;
    factory = std::make_unique<raw_shard_factory_c>(params);
    factory->set_manager(&manager);
    factory->scan();
  }
  std::shared_ptr<raw_shard_c> make(uint64_t start_s) {
    return std::dynamic_pointer_cast<raw_shard_c>(
        factory->find_shard_for(start_s * 1000, CREATE_IF_MISSING).shard);
  }
  std::string path(uint64_t start_s) const {
    return fmt::format("{}/{}-{}", dir.path(), start_s, start_s + DAY);
  }
  void write(const std::shared_ptr<raw_shard_c> &shard, uint64_t ts_ms) {
    const nom_sample_t sample = nom_sample_t::of_int32(1, ts_ms, 1);
    counting_closure_t closure;
    shard->write_numeric_asynch({&sample, 1}, &closure);
    EXPECT_EQ(closure.completes, 1);
  }

  const temp_dir_c dir;
  fake_db_factory_c dbs;
  tolv_timed_mock::factory_c timers;
  recording_manager_t manager;
  std::unique_ptr<raw_shard_factory_c> factory;
};

TEST_F(raw_shard, a_samples_millisecond_decides_its_shard) {
  const auto today = make(NOW), yesterday = make(NOW - 1);
  EXPECT_EQ(today->get_dir_name(), path(NOW));
  EXPECT_EQ(yesterday->get_dir_name(), path(NOW - DAY));
  EXPECT_EQ(factory->find_shard_for(NOW * 1000, MUST_EXIST).shard, today);
  EXPECT_EQ(factory->find_shard_for(NOW * 1000 - 1, MUST_EXIST).shard, yesterday);
  EXPECT_EQ(factory->find_shard_for((NOW + DAY) * 1000, MUST_EXIST).shard, nullptr);
  EXPECT_FALSE(make(NOW + 9 * DAY));
}

TEST_F(raw_shard, the_cache_agrees_with_a_list_of_spans) {
  std::mt19937 random(7);
  std::set<uint64_t> model;
  for (int i = 0; i < 200; i++) {
    const uint64_t start = NOW - (random() % 30) * DAY;
    if (random() % 3) {
      EXPECT_TRUE(make(start));
      model.insert(start);
    } else if (const auto shard = factory->find_shard_for_ts_even_if_offline(start * 1000)) {
      set_now(NOW);
      const_cast<raw_shard_cache_c &>(factory->get_cache()).remove(shard);
      model.erase(start);
    }
    const uint64_t asked = NOW - random() % (32 * DAY);
    const uint64_t floor = asked - asked % DAY;
    const found_shard_t found = factory->get_cache().find(asked);
    ASSERT_EQ(found.shard != nullptr, model.count(floor) == 1) << i;
    const auto next = model.lower_bound(floor);
    const shard_sp after = factory->get_cache().next_at_or_after(asked);
    ASSERT_EQ(after != nullptr, next != model.end());
    uint64_t s = 0, e = 0;
    if (after) after->get_times(&s, &e);
    if (after) {
      ASSERT_EQ(s, *next);
    }
    if (!found.shard && next != model.end()) {
      ASSERT_EQ(found.end_s, *next);
    }
  }
}

TEST_F(raw_shard, an_older_shard_of_another_size_keeps_its_span) {
  factory.reset();
  std::filesystem::create_directories(fmt::format("{}/{}-{}", dir.path(), NOW + 3600, NOW + 3 * 3600));
  open();
  EXPECT_EQ(factory->find_shard_for((NOW + 7200) * 1000, CREATE_IF_MISSING).start_s, NOW + 3600);
  EXPECT_EQ(factory->find_shard_for(NOW * 1000, CREATE_IF_MISSING).shard, nullptr);
}

TEST_F(raw_shard, the_start_removes_what_was_being_deleted_and_opens_the_rest) {
  make(NOW);
  factory.reset();
  std::filesystem::create_directories(path(NOW - DAY) + ".deleting-3/data");
  std::filesystem::create_directories(dir.path() + "/160000000-1600604800");
  open();
  EXPECT_TRUE(factory->find_shard_for(NOW * 1000, MUST_EXIST).shard);
  EXPECT_FALSE(std::filesystem::exists(path(NOW - DAY) + ".deleting-3"));
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/160000000-1600604800"));
}

TEST_F(raw_shard, a_damaged_shard_stays_offline_until_it_is_mended_and_the_others_serve) {
  make(NOW);
  make(NOW - DAY);
  factory.reset();
  dbs.content(path(NOW)).fails_to_open = true;
  open();
  EXPECT_EQ(factory->find_shard_for(NOW * 1000, CREATE_IF_MISSING).shard, nullptr);
  EXPECT_EQ(factory->find_shard_for_ts_even_if_offline(NOW * 1000)->maintenance_mode(), OFFLINE);
  EXPECT_TRUE(factory->find_shard_for((NOW - DAY) * 1000, MUST_EXIST).shard);
  factory->reopen_failed();
  EXPECT_EQ(factory->find_shard_for(NOW * 1000, CREATE_IF_MISSING).shard, nullptr);
  dbs.content(path(NOW)).fails_to_open = false;
  factory->reopen_failed();
  const auto shard = factory->find_shard_for(NOW * 1000, MUST_EXIST).shard;
  ASSERT_TRUE(shard);
  EXPECT_TRUE(shard->get_db());
  factory->reopen_failed();
  EXPECT_EQ(shard->maintenance_mode(), ONLINE);
}

TEST_F(raw_shard, is_dirty_on_disk_before_a_write_is_reported) {
  struct checking_closure_t : counting_closure_t {
    void on_complete() override { was_dirty = nom_rollup_progress_c(path).is_dirty(); }
    std::string path;
    bool was_dirty = false;
  } closure;
  const auto shard = make(NOW);
  closure.path = shard->get_dir_name();
  const nom_sample_t sample = nom_sample_t::of_int32(1, NOW * 1000, 1);
  shard->write_numeric_asynch({&sample, 1}, &closure);
  EXPECT_TRUE(closure.was_dirty);
}

TEST_F(raw_shard, rolls_up_once_it_is_quiet) {
  const auto shard = make(NOW - DAY);
  write(shard, NOW * 1000 - 1);
  set_now(NOW + 8 * 3600 + 1);  // the first look: written since, so it waits for another quiet time
  EXPECT_TRUE(manager.rollups.empty());
  set_now(NOW + 17 * 3600);
  ASSERT_EQ(manager.rollups.size(), 1U);
  EXPECT_EQ(shard->in_manager(), IN_MANAGER_ROLLUP_START);
  EXPECT_TRUE(shard->try_start_rollup());
  factory->manager_done(shard);
  EXPECT_EQ(manager.deletes.size(), 1U);
  EXPECT_EQ(shard->in_manager(), IN_MANAGER_DELETE_ELIGIBLE);
}

TEST_F(raw_shard, a_write_in_between_sends_it_back) {
  const auto shard = make(NOW - DAY);
  set_now(NOW + 8 * 3600 + 1);
  ASSERT_EQ(manager.rollups.size(), 1U);
  write(shard, NOW * 1000 - 1);
  EXPECT_FALSE(shard->try_start_rollup());
  factory->manager_done(shard);
  EXPECT_EQ(shard->in_manager(), IN_MANAGER_NO);
  set_now(NOW + 17 * 3600);
  EXPECT_EQ(manager.rollups.size(), 2U);
}

TEST_F(raw_shard, is_deleted_when_it_is_old_and_clean_and_not_before) {
  const auto shard = make(NOW - DAY);
  set_now(NOW + 8 * 3600 + 1);
  factory->try_delete_shard(shard);
  EXPECT_TRUE(std::filesystem::exists(path(NOW - DAY)));
  set_now(NOW + 11 * DAY);
  write(shard, NOW * 1000 - 1);
  factory->try_delete_shard(shard);
  EXPECT_TRUE(std::filesystem::exists(path(NOW - DAY)));
  shard->get_rollup_progress().mark_clean();
  factory->try_delete_shard(shard);
  EXPECT_TRUE(std::filesystem::exists(path(NOW - DAY)));  // clean, but not rolled up
  shard->get_rollup_progress().mark_finished();
  shard_metadata_impl_c().set_was_rolled(shard->get_dir_name(), true);
  factory->try_delete_shard(shard);
  EXPECT_FALSE(std::filesystem::exists(path(NOW - DAY)));
  EXPECT_EQ(factory->find_shard_for_ts_even_if_offline((NOW - DAY) * 1000), nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(raw_shard, modes_change_as_told) {
  const auto shard = make(NOW);
  const auto ask = [&](shard_maintenance_mode_e mode) {
    return shard->request_maintenance_mode(mode, std::chrono::milliseconds(100));
  };
  EXPECT_FALSE(ask(OFFLINE_PENDING).ok);
  EXPECT_TRUE(ask(OFFLINE).ok);
  counting_closure_t closure;
  const nom_sample_t sample = nom_sample_t::of_int32(1, NOW * 1000, 1);
  shard->write_numeric_asynch({&sample, 1}, &closure);
  EXPECT_EQ(closure.last_code, RAW_WRITE_ERROR_NO_SHARD);
  EXPECT_EQ(closure.completes, 1);
  EXPECT_TRUE(ask(ONLINE).ok);
  write(shard, NOW * 1000);
  EXPECT_TRUE(ask(OFFLINE_RECONSTITUTE).ok);
  EXPECT_EQ(ask(ONLINE).message, "cannot bring shard `" + shard->get_dir_name() +
                                     "` online because current mode is `OFFLINE_RECONSTITUTE`.");
  EXPECT_TRUE(ask(OFFLINE_CLOSED_PENDING_DELETE).ok);
  EXPECT_EQ(ask(OFFLINE).message,
            "shard `" + shard->get_dir_name() +
                "` is `OFFLINE_CLOSED_PENDING_DELETE` and can not change maintenance modes.");
}

TEST_F(raw_shard, entries_go_to_the_shards_of_their_times_and_complete_once) {
  std::vector<raw_key_c> keys(5);
  std::vector<raw_entry_c> entries(5);
  const uint8_t uuid[16] = {1};
  const auto locator = metric_locator_adopt(velmar_metric_locator_create(uuid, nullptr, METRIC_TYPE_NUMERIC));
  const uint64_t seconds[] = {NOW + 1, NOW - DAY, NOW - 1, NOW + 30 * DAY, NOW - 3 * DAY};
  for (size_t i = 0; i < 5; i++) {
    surrogate::key_c key;
    key.set_data(locator, std::chrono::milliseconds(seconds[i] * 1000));
    keys[i].set_data(i + 1, std::move(key));
    raw_value_c value;
    value.set_data(dorn_record_m_value_t{VELMAR_METRIC_INT32, true, {}}, 0);
    entries[i].set_data(&keys[i], std::move(value));
  }
  counting_closure_t closure;
  asynch_entry_batch_write(factory.get(), entries.data(), entries.size(), &closure);
  EXPECT_EQ(closure.completes, 1);
  EXPECT_EQ(closure.error_rows, 1U);
  EXPECT_EQ(closure.last_code, RAW_WRITE_ERROR_NO_SHARD);
  EXPECT_EQ(dbs.content(path(NOW)).entries, 1U);
  EXPECT_EQ(dbs.content(path(NOW - DAY)).entries, 2U);
  EXPECT_EQ(dbs.content(path(NOW - DAY)).writes, 1U);
  EXPECT_EQ(dbs.content(path(NOW - 3 * DAY)).entries, 1U);
  asynch_entry_batch_write(factory.get(), nullptr, 0, &closure);
  EXPECT_EQ(closure.completes, 2);
}

}  // namespace
}  // namespace db::raw
