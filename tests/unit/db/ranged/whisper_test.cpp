// Imported files: what is read from good ones, and that bad ones are refused.

#include <sys/stat.h>

#include <cmath>
#include <limits>

#include "db/ranged/whisper_file.h"
#include "db/ranged/whisper_reader.h"
#include "platform/krel/base/krel_conf.h"
#include "ranged_support.h"
#include "support/fault_files.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "whisper_builder.h"

namespace velmar::ranged::from::whisper {
namespace {

using namespace ranged_support;
using ring_t = whisper_builder_c::ring_t;

constexpr uint32_t T = 1700000040;  // a whole minute
static_assert(T % 60 == 0);

class whisper : public testing::Test {
 protected:
  std::unique_ptr<whisper_file_c> open(const std::string &bytes) {
    whisper_builder_c::write(dir / "m.wsp", bytes);
    error.clear();
    return whisper_file_c::open(dir / "m.wsp", &error);
  }
  // The values of `count` cells; NaN for an empty one.
  std::vector<double> fill(whisper_file_c *file, uint64_t start, unsigned period, size_t count) {
    cells.assign(count, nnt_multitype{});
    served = file->fill(cells.data(), start, period, count);
    std::vector<double> out;
    for (const nnt_multitype &cell : cells)
      out.push_back(cell.type == NNT_TYPE_ABSENT ? NAN : nnt_multitype_double(cell));
    return out;
  }
  static void expect_values(const std::vector<double> &got, const std::vector<double> &expected) {
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); i++)
      EXPECT_TRUE(got[i] == expected[i] || (std::isnan(got[i]) && std::isnan(expected[i])))
          << i << ": " << got[i] << " for " << expected[i];
  }

  const temp_dir_c dir;
  std::string error;
  std::vector<nnt_multitype> cells;
  size_t served = 0;
};

TEST_F(whisper, cells_are_averages_of_the_points_of_their_span) {
  const auto file =
      open(whisper_builder_c({whisper_builder_c::ring(
                                 60, 10, {{T, 1}, {T + 60, 2}, {T + 120, 6}, {T + 240, 10}, {T + 300, 0.5}})})
               .bytes());
  ASSERT_TRUE(file) << error;
  expect_values(fill(file.get(), T, 60, 8), {1, 2, 6, NAN, 10, 0.5, NAN, NAN});
  EXPECT_EQ(served, 6U);
  EXPECT_EQ(cells[0].type, NNT_TYPE_DOUBLE);
  EXPECT_EQ(cells[0].count, 1U);
  EXPECT_EQ(cells[0].derivative, 0.0F);
  EXPECT_EQ(cells[0].stddev_present, 0);
  expect_values(fill(file.get(), T, 180, 2), {3, 5.25});
  EXPECT_EQ(cells[0].count, 3U);
  EXPECT_EQ(cells[1].count, 2U);
  expect_values(fill(file.get(), T - 120, 60, 4), {NAN, NAN, 1, 2});
  expect_values(fill(file.get(), T, 90, 2), {NAN, NAN});  // no whole points
  expect_values(fill(file.get(), T + 1, 60, 1), {NAN});
  EXPECT_EQ(served, 0U);
}

TEST_F(whisper, a_ring_that_has_turned_keeps_its_newest_points) {
  std::vector<std::pair<uint32_t, double>> written;
  for (uint32_t i = 0; i < 25; i++) written.push_back({T + 60 * i, i});
  const auto file = open(whisper_builder_c({whisper_builder_c::ring(60, 10, written)}).bytes());
  ASSERT_TRUE(file);
  std::vector<double> expected(15, NAN);
  for (int i = 15; i < 25; i++) expected.push_back(i);
  expected.resize(40, NAN);
  expect_values(fill(file.get(), T, 60, 40), expected);
  EXPECT_EQ(served, 25U);
  expect_values(fill(file.get(), T + 18 * 60, 240, 1), {19.5});  // across the ring's end
}

TEST_F(whisper, a_coarser_archive_serves_what_the_finer_lacks) {
  const uint32_t hour = 1699999200;
  static_assert(1699999200 % 3600 == 0);
  const ring_t fine = whisper_builder_c::ring(60, 60, {{hour + 3600, 5}, {hour + 3660, 7}}),
               coarse = whisper_builder_c::ring(300, 100, {{hour, 40}, {hour + 300, 41}, {hour + 3600, 99}});
  const auto file = open(whisper_builder_c({fine, coarse}).bytes());
  ASSERT_TRUE(file);
  std::vector<double> expected(14, NAN);
  expected[0] = 40, expected[1] = 41, expected[12] = 6;
  expect_values(fill(file.get(), hour, 300, 14), expected);
  EXPECT_EQ(served, 13U);
  expect_values(fill(file.get(), hour, 60, 2), {NAN, NAN});  // finer than what there is of that time
  ASSERT_TRUE(open(whisper_builder_c({coarse, fine}).bytes()));
}

TEST_F(whisper, files_that_lie_are_refused_or_give_nothing) {
  const whisper_builder_c good({whisper_builder_c::ring(60, 10, {{T, 1}, {T + 60, 2}})});
  const std::string bytes = good.bytes();
  EXPECT_FALSE(open(bytes.substr(0, 15)));
  EXPECT_EQ(error, dir / "m.wsp failed metadata read");
  EXPECT_FALSE(open(good.bytes(2)));
  EXPECT_EQ(error, dir / "m.wsp has unsupported aggregation 2");
  EXPECT_FALSE(open(bytes.substr(0, 20)));
  EXPECT_EQ(error, dir / "m.wsp failed retensions read");
  EXPECT_FALSE(open(bytes.substr(0, 28)));
  EXPECT_EQ(error, dir / "m.wsp bad base read of retention period 0");
  std::string lies = bytes;
  lies[15] = 12;
  EXPECT_FALSE(open(lies));
  EXPECT_EQ(error, dir / "m.wsp claims to have 12 retentions... unsupported");
  for (const size_t field : {20, 24}) {  // no step, no points
    lies = bytes;
    lies.replace(field, 4, 4, '\0');
    EXPECT_FALSE(open(lies));
  }
  const auto none = open(whisper_builder_c({}).bytes());
  ASSERT_TRUE(none);
  expect_values(fill(none.get(), T, 60, 1), {NAN});

  lies = bytes;
  lies.replace(24, 4, 4, '\xff');  // as many points as there can be, of which two are there
  const auto vast = open(lies);
  ASSERT_TRUE(vast);
  expect_values(fill(vast.get(), T, 60, 3), {1, 2, NAN});
  expect_values(fill(vast.get(), UINT32_MAX - 59, 60, 5), {NAN, NAN, NAN, NAN, NAN});
  expect_values(fill(vast.get(), uint64_t{1} << 40, 60, 1), {NAN});

  const auto odd = open(whisper_builder_c({{60, 3, {{T + 7, 1}, {T + 60, 2}}}}).bytes());
  ASSERT_TRUE(odd);
  expect_values(fill(odd.get(), T, 60, 2), {NAN, NAN});  // no point lies where its ring says
  const double inf = std::numeric_limits<double>::infinity();
  const auto wild =
      open(whisper_builder_c({{60, 4, {{T, NAN}, {T + 60, inf}, {T + 120, -1e300}, {T, 5}}}}).bytes());
  ASSERT_TRUE(wild);
  expect_values(fill(wild.get(), T, 60, 4), {NAN, NAN, -1e300, NAN});
}

TEST_F(whisper, a_file_that_cannot_be_read_is_an_error_and_a_missing_one_is_none) {
  EXPECT_FALSE(whisper_file_c::open(dir / "none.wsp", &error));
  EXPECT_EQ(error, "");
  ASSERT_EQ(mkfifo((dir / "fifo.wsp").c_str(), 0600), 0);
  EXPECT_FALSE(whisper_file_c::open(dir / "fifo.wsp", &error));
  EXPECT_EQ(error, "");
  EXPECT_FALSE(whisper_file_c::open(dir / std::string(300, 'x'), &error));
  EXPECT_EQ(error, "");
}

metric_locator_sp metric_of(const char *name, uint8_t check = 1) {
  return make_metric(name, check);
}

TEST_F(whisper, a_metric_finds_its_file_by_check_and_name) {
  ctx_c ctx;
  directory_t directory = {dir.path(), {}, 1};
  memcpy(directory.check_uuid.data(), velmar_metric_locator_get_check_uuid(metric_of("x").get()), 16);
  ctx.add(directory);
  log_capture_c log("error");
  ctx.add({"second", directory.check_uuid, 1});
  EXPECT_TRUE(log.contains("Failed to add whisper directory second (duplicate uuid)"));
  const std::string bytes = whisper_builder_c({whisper_builder_c::ring(60, 10, {{T, 3}})}).bytes();
  whisper_builder_c::write(dir / "web/cpu/load.wsp", bytes);
  nnt_multitype cell = {};
  EXPECT_TRUE(ctx.covers(metric_of("web.cpu.load")));
  EXPECT_EQ(ctx.whisper_get_range(T, metric_of("web.cpu.load"), 1, 60, &cell, &error), 1U);
  EXPECT_EQ(cell.value.v_double, 3);
  cell = {};
  EXPECT_FALSE(ctx.covers(metric_of("web.cpu.load", 2)));
  EXPECT_EQ(ctx.whisper_get_range(T, metric_of("web.cpu.load", 2), 1, 60, &cell, &error), 0U);
  EXPECT_EQ(ctx.whisper_get_range(T, metric_of("web.cpu"), 1, 60, &cell, &error), 0U);
  // no name leads out of the directory
  const std::string outside = std::filesystem::path(dir.path()).filename().string();
  whisper_builder_c::write(dir.path() + "_secret.wsp", bytes);
  EXPECT_EQ(ctx.whisper_get_range(T, metric_of(("../" + outside + "_secret").c_str()), 1, 60, &cell, &error),
            0U);
  std::filesystem::remove(dir.path() + "_secret.wsp");
  EXPECT_EQ(error, "");
}

TEST(whisper_conf_DeathTest, sections_become_directories_and_bad_ones_end_the_process) {
  const auto load = [](const std::string &whisper) {
    return krel_conf_load_text("<velmar><graphite>" + whisper + "</graphite></velmar>", "conf");
  };
  ASSERT_TRUE(load(""));
  EXPECT_FALSE(ctx_c::from_conf());
  const std::string uuid = " check_uuid=\"abcdef00-0000-0000-0000-000000000001\"";
  ASSERT_TRUE(load("<whisper directory=\"/a\" account_id=\"1\"" + uuid + "/>"));
  const auto ctx = ctx_c::from_conf();
  ASSERT_TRUE(ctx);
  EXPECT_TRUE(ctx->covers(metric_of("m", 1)));
  const std::pair<std::string, std::string> bad[] = {
      {"<whisper account_id=\"1\"" + uuid + "/>", "whisper config 0 has invalid or missing directory"},
      {"<whisper directory=\"/a\" account_id=\"x\"" + uuid + "/>",
       "whisper config 0 has invalid or missing account_id"},
      {"<whisper directory=\"/a\" account_id=\"1\" check_uuid=\"12\"/>",
       "whisper config 0 has unparseable check_uuid"}};
  for (const auto &[section, text] : bad) {
    ASSERT_TRUE(load(section));
    EXPECT_DEATH(ctx_c::from_conf(), text);
  }
}

}  // namespace
}  // namespace velmar::ranged::from::whisper
