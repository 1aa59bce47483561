// Names, the directory scan, and writing on a disk that fails.
#include <gtest/gtest.h>

#include <fstream>

#include "db/surrogate3/codec/surrogate_codec_factory.h"
#include "support/fault_files.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"

namespace db::surrogate3 {

namespace {

std::unique_ptr<surrogate_encoder_c> encoder_of_one() {
  auto encoder = build_encoder(surrogate::metadata);
  encoder->accept(make_stored_metric(1, "a"));
  encoder->commit(17);
  return encoder;
}

}  // namespace

TEST(FileSelection, NamesAreIdsInTwelveDigits) {
  const temp_dir_c dir;
  const dir_based_file_selection_strategy_c fss(dir / "root");
  EXPECT_EQ(fss.gen_file_name(surrogate::metadata, 17), dir / "root/metadata/000000000017");
  EXPECT_EQ(fss.gen_file_name(surrogate::activity, 1234567890123), dir / "root/activity/1234567890123");
  EXPECT_TRUE(fss.get_files(surrogate::metadata).empty());  // no directory yet

  std::filesystem::create_directories(dir / "root/metadata");
  for (const char *name :
       {"000000000002", "000000000017", "1234567890123", "17", "000000000017.repair", "x", "0000000000170",
        "-00000000017", "000000000000", "00000000000a", "99999999999999999999999"})
    std::ofstream(dir / "root/metadata/" + name) << "12345";
  std::vector<uint64_t> ids;
  for (const data_file_descriptor_t &file : fss.get_files(surrogate::metadata)) {
    ids.push_back(file.file_id);
    EXPECT_EQ(file.length, 5u);
  }
  EXPECT_EQ(ids, (std::vector<uint64_t>{2, 17, 1234567890123}));
}

TEST(WriteDataToFile, IsDurableWhenItReturns) {
  const temp_dir_c dir;
  std::filesystem::create_directories(dir / "root/metadata");
  fault_files_c files(dir.path(), 1);
  const dir_based_file_selection_strategy_c fss(dir / "root", files);
  encoder_of_one()->write_data_to_file(fss, surrogate::metadata, 17);
  files.crash(crash_loss_e::everything_unsynced);
  const auto decoder = default_codec_factory_c(fss).build_metadata_decoder(17);
  EXPECT_EQ(decoder->get_surrogate_id_from_key(metric_key_c(make_metric("a").get())), 1u);
  EXPECT_EQ(decoder->get_file_id(), 17u);
}

TEST(WriteDataToFileDeathTest, EveryFailureEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const temp_dir_c dir;
  std::filesystem::create_directories(dir / "root/metadata");
  const auto write = [&](uint64_t failing_step, int error, const std::string &root) {
    fault_files_c files(dir.path(), 1);
    const dir_based_file_selection_strategy_c fss(dir / root, files);
    if (error == ENOSPC)
      files.set_free_space(100);
    else
      files.fail_step(failing_step, error);
    encoder_of_one()->write_data_to_file(fss, surrogate::metadata, 17);
  };
  EXPECT_DEATH(write(2, EACCES, "none"),
               "\\[TERMINATE\\] Unable to create parent directory for file .*none/metadata/000000000017\\. "
               "Permission denied\n");
  EXPECT_DEATH(
      write(0, ENOSPC, "root"),
      "\\[FATAL\\] Unable to write all data to file .*000000000017\\. [0-9]+ written vs [0-9]+ expected\\. "
      " Error from system: No space left on device\n");
  EXPECT_DEATH(write(3, EIO, "root"),
               "\\[FATAL\\] Unable to sync file .*000000000017\\. Error from system: Input/output error\n");
  std::filesystem::remove_all(dir / "root/metadata");
  std::filesystem::create_directories(dir / "root/metadata/000000000017");
  EXPECT_DEATH(write(99, EIO, "root"), "\\[TERMINATE\\] Unable to open file for writing .*000000000017\n");
}

TEST(CodecFactoryDeathTest, FilesThatCannotBeDecodedEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const temp_dir_c dir;
  const dir_based_file_selection_strategy_c fss(dir / "root");
  const default_codec_factory_c factory(fss);
  std::filesystem::create_directories(dir / "root/metadata");
  std::filesystem::create_directories(dir / "root/activity");
  std::ofstream(dir / "root/metadata/000000000003") << std::string(100, 'x');
  std::ofstream(dir / "root/activity/000000000004") << std::string(100, 'x');
  EXPECT_DEATH(factory.build_metadata_decoder(3),
               "metadata/000000000003(.|\n)*Unable to decode surrogate file 3\n");
  EXPECT_DEATH(factory.build_activity_decoder(4), "activity/000000000004(.|\n)*Unable to decode oil file 4\n");
  EXPECT_DEATH(factory.build_activity_decoder(9), "Unable to decode oil file 9\n");
}

}  // namespace db::surrogate3
