// What a start finds in the directories, and what it makes of it.
#include <gtest/gtest.h>

#include <fstream>

#include "database_fixture.h"
#include "db/surrogate3/codec/oil_decoder_composite.h"
#include "db/surrogate3/data_files.h"
#include "dying_child.h"
#include "support/log_capture.h"

namespace db::surrogate3 {

namespace {

namespace fs = std::filesystem;

std::string path_of(const std::string &root, spec_e spec, uint64_t id) {
  return dir_based_file_selection_strategy_c(root + "/flatbuffers").gen_file_name(spec, id);
}

void write_one_per_commit(const std::string &root, int from, int to) {
  const auto database = open_database(root);
  for (int i = from; i <= to; ++i) write_metric(*database, make_metric("m" + std::to_string(i)), 1'000'000);
}

void cut(const std::string &path, uintmax_t by) {
  fs::resize_file(path, fs::file_size(path) - by);
}

// All that the files say, by the precedence of lookups.
std::map<uint64_t, std::string> contents(const file_selection_strategy_c &fss) {
  std::map<uint64_t, std::string> out;
  const default_codec_factory_c factory(fss);
  id_set_c hidden;
  const auto metadata = fss.get_files(surrogate::metadata);
  for (auto file = metadata.rbegin(); file != metadata.rend(); ++file) {
    const auto decoder = factory.build_metadata_decoder(file->file_id);
    decoder->load_tombstones(&hidden);
    for (size_t i = 0; i < decoder->get_num_entries(); ++i) {
      const auto metric = decoder->build_metric_locator_at(i);
      const uint64_t id = velmar_metric_locator_get_surrogate_id(metric.get());
      if (hidden.add_checked(id)) out[id] = name_of(metric) + "/" + std::to_string(metric->account_id);
    }
  }
  std::vector<oil_decoder_sp> oils;
  for (const auto &file : fss.get_files(surrogate::activity))
    oils.push_back(factory.build_activity_decoder(file.file_id));
  for (delegate_iterator_c it(oils); !it.is_done(); it.next())
    out[it.id()] += "@" + std::to_string(it.pairs()[0].first);
  return out;
}

}  // namespace

TEST(StartUp, EmptyFilesVanishAndIdsCloseUp) {
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 4);
  for (const spec_e spec : {surrogate::metadata, surrogate::activity}) {
    fs::rename(path_of(dir.path(), spec, 4), path_of(dir.path(), spec, 12));
    fs::rename(path_of(dir.path(), spec, 3), path_of(dir.path(), spec, 8));
    std::ofstream(path_of(dir.path(), spec, 3)).close();
    std::ofstream(path_of(dir.path(), spec, 20)).close();
  }
  const log_capture_c log("notice");
  const auto database = open_database(dir.path());
  EXPECT_EQ(file_ids(dir.path(), surrogate::metadata), (std::vector<uint64_t>{1, 2, 3, 4}));
  EXPECT_EQ(file_ids(dir.path(), surrogate::activity), (std::vector<uint64_t>{1, 2, 3, 4}));
  for (int i = 1; i <= 4; ++i) EXPECT_EQ(database->find(make_metric("m" + std::to_string(i))), i);
  write_metric(*database, make_metric("m2", 1, 77));
  EXPECT_EQ(file_ids(dir.path(), surrogate::metadata), (std::vector<uint64_t>{1, 2, 3, 4, 5}));
}

TEST(StartUp, ARepairFileTakesThePlaceOfWhatACrashLeft) {
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 3);
  const std::string second = path_of(dir.path(), surrogate::metadata, 2);
  fs::copy_file(second, second + ".repair");
  cut(second, 100);
  const log_capture_c log("notice");
  const auto database = open_database(dir.path());
  EXPECT_EQ(database->find(make_metric("m2")), 2u);
  EXPECT_FALSE(fs::exists(second + ".repair"));
}

TEST(StartUp, ACutNewestFileIsSetAside) {
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 3);
  for (const int again : {0, 1}) {
    for (const spec_e spec : {surrogate::metadata, surrogate::activity}) cut(path_of(dir.path(), spec, 3), 1);
    const log_capture_c log("error");
    const auto database = open_database(dir.path());
    EXPECT_EQ(file_ids(dir.path(), surrogate::metadata).size(), 2u);
    EXPECT_TRUE(log.contains(path_of(dir.path(), surrogate::metadata, 3) + ".damaged"));
    EXPECT_TRUE(fs::exists(path_of(dir.path(), surrogate::activity, 3) + (again ? ".damaged.1" : ".damaged")));
    EXPECT_EQ(database->find(make_metric("m2")), 2u);
    EXPECT_EQ(database->find(make_metric("m3")), std::nullopt);
    EXPECT_EQ(write_metric(*database, make_metric("m3"), 1'000'000).id, 3u);
  }
}

TEST(StartUpDeathTest, OtherDamageEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 3);
  const std::string older = path_of(dir.path(), surrogate::metadata, 2),
                    newest = path_of(dir.path(), surrogate::activity, 3);
  fs::copy_file(older, dir / "kept");
  cut(older, 1);
  EXPECT_DEATH(open_database(dir.path()), "Unable to decode surrogate file 2\n");
  fs::copy_file(dir / "kept", older, fs::copy_options::overwrite_existing);
  std::fstream(newest, std::ios::in | std::ios::out).seekp(8) << "JUNK";
  EXPECT_DEATH(open_database(dir.path()), "activity/000000000003(.|\n)*Unable to decode oil file 3\n");
}

TEST(StartUp, ManyFilesBecomeOne) {
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 40);
  {
    const log_capture_c log("notice");
    const auto database = open_database(dir.path());
    EXPECT_EQ(file_ids(dir.path(), surrogate::metadata), (std::vector<uint64_t>{1}));
    EXPECT_EQ(file_ids(dir.path(), surrogate::activity), (std::vector<uint64_t>{1}));
    for (int i = 1; i <= 40; ++i) {
      const auto metric = database->find_reverse(static_cast<uint64_t>(i));
      ASSERT_TRUE(metric);
      EXPECT_EQ(name_of(metric), "m" + std::to_string(i));
      EXPECT_TRUE(velmar_metric_locator_was_active(metric.get(), 1000, 1000));
    }
    EXPECT_EQ(write_metric(*database, make_metric("m41")).id, 41u);
  }
  EXPECT_EQ(file_ids(dir.path(), surrogate::metadata), (std::vector<uint64_t>{1, 2}));
}

TEST(StartUp, AMergeLeavesLargeFilesAlone) {
  const temp_dir_c dir;
  write_one_per_commit(dir.path(), 1, 2);
  {
    const auto database = open_database(dir.path());
    std::vector<metric_write_t> many;
    for (int i = 1; i <= 100; ++i) many.push_back({make_metric("m" + std::to_string(i), 1, 5)});
    write_metrics(*database, many);
    for (int i = 1; i <= 3; ++i) write_metric(*database, make_metric("m" + std::to_string(i), 1, 6));
    database->batch_erase(std::vector<uint64_t>{2, 50});
  }
  const dir_based_file_selection_strategy_c fss(dir / "flatbuffers");
  const auto expected = contents(fss);
  const log_capture_c log("notice");
  merge_files(fss, surrogate::metadata, 7, 8000);
  EXPECT_EQ(fss.get_files(surrogate::metadata).size(), 7u);
  merge_files(fss, surrogate::metadata, 6, 8000);  // the four behind the large one
  std::vector<uint64_t> ids;
  for (const auto &file : fss.get_files(surrogate::metadata)) ids.push_back(file.file_id);
  EXPECT_EQ(ids, (std::vector<uint64_t>{1, 2, 3, 7}));
  EXPECT_EQ(contents(fss), expected);
}

TEST(StartUp, AMergeMayDieOrFailAtAnyStep) {
  const temp_dir_c original;
  {
    const auto database = open_database(original / "db");
    write_metrics(*database,
                  {{make_metric("a"), 1'000'000}, {make_metric("b"), 1'000'000}, {make_metric("c")}});
    write_metrics(*database, {{make_metric("a", 1, 9), 500'000'000}, {make_metric("d"), 2'000'000}});
    database->batch_erase(std::vector<uint64_t>{2, 4});
    write_metrics(*database, {{make_metric("b"), 3'000'000}});
    write_metrics(*database, {{make_stored_metric(4, "d"), 4'000'000, true}});  // an erased id, back by order
  }
  const auto expected = contents(dir_based_file_selection_strategy_c(original / "db/flatbuffers"));
  ASSERT_EQ(expected.size(), 4u);
  for (const spec_e spec : {surrogate::metadata, surrogate::activity})
    for (const bool power_cut : {true, false}) {
      bool finished = false;
      for (uint64_t step = 1; step < 40 && (!finished || !power_cut); ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const temp_dir_c dir;
        fs::copy(original / "db", dir / "db", fs::copy_options::recursive);
        dying_child_c::run(
            dir.path(), step, crash_loss_e::random,
            [&](fault_files_c &files, const dying_child_c::report_f &) {
              power_cut ? files.cut_power_at_step(step) : files.fail_step(step, ENOSPC);
              merge_files(dir_based_file_selection_strategy_c(dir / "db/flatbuffers", files), spec, 2);
            },
            &finished);
        const log_capture_c log("error"), notices("notice");
        const dir_based_file_selection_strategy_c fss(dir / "db/flatbuffers");
        for (const bool merge : {false, true}) {
          restore_repair_files(fss, spec);
          remove_empty_files(fss, spec);
          set_cut_file_aside(fss, spec);
          if (merge) merge_files(fss, spec, 2);
          resequence_files(fss, spec);
          EXPECT_EQ(contents(fss), expected);
        }
        EXPECT_LE(fss.get_files(spec).size(), 2u);
        const auto database = open_database(dir / "db");
        EXPECT_EQ(write_metric(*database, make_metric("new")).id, 6u);
      }
    }
}

}  // namespace db::surrogate3
