// The chain of last cumulative histograms: its bytes, its order, damage, and going on behind a cut.

#include "db/raw/rollup/cumulative_forwarding.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "util/histogram_entries.h"

namespace db::raw {
namespace {

hist_ptr histogram_of(double value, uint64_t count) {
  hist_ptr histogram(hist_alloc());
  hist_insert(histogram.get(), value, count);
  return histogram;
}

std::string bytes_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

class forwarding : public testing::Test {
 protected:
  void write(std::initializer_list<uint64_t> ids, uint64_t resume_at = 0) {
    cumulative_writer_c writer(path, resume_at);
    for (const uint64_t id : ids) EXPECT_TRUE(writer.write(id, 1000 * id, histogram_of(1.0, id).get()));
    EXPECT_TRUE(writer.finish(&changed));
  }
  // The count of the metric's histogram, 0 when there is none.
  static uint64_t read(cumulative_reader_c *reader, uint64_t id) {
    uint64_t ts_ms = 0;
    const hist_ptr histogram(hist_alloc());
    if (!reader->read(id, &ts_ms, histogram.get())) return 0;
    EXPECT_EQ(ts_ms, 1000 * id);
    return hist_sample_count(histogram.get());
  }

  const temp_dir_c dir;
  const std::string path = cumulative_forwarding_path(dir.path(), 1700006400, 3);
  bool changed = false;
};

TEST_F(forwarding, bytes) {
  EXPECT_EQ(std::filesystem::path(path).filename(), "cumulative_forwarding_1700006400_3.dat");
  write({5});
  const char expected[] =
      "\x78\x56\x34\x12\xaa\x55\xaa\x55"
      "\5\0\0\0\0\0\0\0"
      "\x88\x13\0\0\0\0\0\0"
      "\5\0\0\0\0\0\0\0"
      "\1\1\x0a\0\5";  // one bin, 10 x 10^0, five times
  EXPECT_EQ(bytes_of(path), std::string(expected, sizeof expected - 1));
}

TEST_F(forwarding, is_read_forwards_in_the_order_of_keys) {
  write({256, 512, 1, 257, 2});  // by their bytes in memory
  cumulative_reader_c reader(path);
  EXPECT_EQ(read(&reader, 512), 512U);
  EXPECT_EQ(read(&reader, 256), 0U);  // passed
  EXPECT_EQ(read(&reader, 257), 257U);
  EXPECT_EQ(read(&reader, 3), 0U);
  cumulative_reader_c none(path + ".none");
  EXPECT_EQ(read(&none, 256), 0U);
}

TEST_F(forwarding, a_damaged_stretch_is_passed_over) {
  write({1, 2, 3});
  std::string bytes = bytes_of(path);
  const size_t record = bytes.size() / 3;
  const auto put = [&](const std::string &to) { std::ofstream(path, std::ios::binary) << to; };
  for (const size_t lost : {size_t{1}, record / 2, record}) {
    put(bytes.substr(0, record) + bytes.substr(record + lost));
    cumulative_reader_c reader(path);
    EXPECT_EQ(read(&reader, 1), 1U);
    EXPECT_EQ(read(&reader, 2), 0U);
    EXPECT_EQ(read(&reader, 3), 3U) << lost;
  }
  put(std::string(900, 'x') + bytes);
  cumulative_reader_c behind(path);
  EXPECT_EQ(read(&behind, 2), 2U);
  std::string huge = bytes;
  huge[record + 24 + 6] = 1;  // a size beyond the file
  put(huge);
  cumulative_reader_c reader(path);
  EXPECT_EQ(read(&reader, 3), 3U);
  put(bytes.substr(0, bytes.size() - 1));
  cumulative_reader_c torn(path);
  EXPECT_EQ(read(&torn, 3), 0U);
}

TEST_F(forwarding, tells_whether_it_changed) {
  write({1, 2});
  EXPECT_TRUE(changed);
  write({1, 2});
  EXPECT_FALSE(changed);
  write({1});
  EXPECT_TRUE(changed);
  write({});
  EXPECT_TRUE(changed);
  EXPECT_FALSE(std::filesystem::exists(path));
  write({});
  EXPECT_FALSE(changed);
}

TEST_F(forwarding, goes_on_behind_a_cut) {
  write({1, 2, 3});
  const std::string whole = bytes_of(path);
  {
    cumulative_writer_c writer(path, 0);
    for (const uint64_t id : {1, 2}) writer.write(id, 1000 * id, histogram_of(1.0, id).get());
  }  // cut short: the file beside its place stays
  write({2, 3}, 2);
  EXPECT_EQ(bytes_of(path), whole);
  write({3}, 3);  // cut behind the renaming
  EXPECT_EQ(bytes_of(path), whole);
}

}  // namespace
}  // namespace db::raw
