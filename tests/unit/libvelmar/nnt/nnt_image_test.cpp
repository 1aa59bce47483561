// Images: their bytes by hand, their limits, and what the operations do to them.
#include "libvelmar/nnt/nnt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "nnt_samples.h"

namespace {

int memory_file(const std::string &bytes) {
  const int fd = memfd_create("nnt", MFD_CLOEXEC);
  EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  return fd;
}

std::string file_bytes(int fd) {
  std::string bytes(65536, '\0');
  const ssize_t got = pread(fd, bytes.data(), bytes.size(), 0);
  bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return bytes;
}

std::string header(uint32_t period, uint64_t epoch, const char *version = "NNT1") {
  std::string bytes(version, 4);
  bytes.append(reinterpret_cast<const char *>(&period), 4);
  return bytes.append(reinterpret_cast<const char *>(&epoch), 8);
}

nnt_handle_up new_image(uint64_t epoch, uint32_t period) {
  const std::string at = testing::TempDir() + "nnt_image_test";
  return nnt_handle_up(
      nnt_open_fd_sync(nnt_create_tmp(nullptr, at.c_str(), epoch, period, 0600), false, nullptr));
}

nnt_multitype cell_L(uint64_t value, uint32_t count = 1) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_UINT64;
  cell.value.v_uint64 = value;
  cell.count = count;
  return cell;
}

uint64_t get_L(nnt_handle *h, uint64_t t) {
  nnt_multitype cell;
  EXPECT_EQ(h->opset->get(h, t, &cell), 1);
  return cell.type == NNT_TYPE_ABSENT ? 0 : cell.value.v_uint64;
}

TEST(nnt_image, bytes_of_a_file) {
  nnt_handle_up h = new_image(120, 60);
  ASSERT_TRUE(h);
  nnt_multitype cells[3] = {};
  cells[0].type = NNT_TYPE_DOUBLE;
  cells[0].count = 0x0102;
  cells[0].stddev_present = 1;
  cells[0].stddev = 2;
  cells[0].value.v_double = 1.5;
  cells[0].derivative = 1;
  cells[0].derivative_stddev = -2;
  cells[0].counter = 0.5;
  cells[0].counter_stddev = 4;
  cells[2].type = NNT_TYPE_INT32;
  cells[2].count = 70'000;
  cells[2].stddev = 9;  // not present: not stored
  cells[2].value.v_int32 = -2;
  ASSERT_EQ(nnt_put_range(h.get(), 120, 3, cells), 3);
  // clang-format off
  const uint8_t expected[] = {
      'N', 'N', 'T', '1', 60, 0, 0, 0, 120, 0, 0, 0, 0, 0, 0, 0,
      0x02, 6, 2, 1, 0, 0, 0, 0x40, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f,
      0, 0, 0x80, 0x3f, 0, 0, 0, 0xc0, 0, 0, 0, 0x3f, 0, 0, 0x80, 0x40,
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
      0x0b, 0x0a, 0xff, 0xff, 0, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff, 0, 0, 0, 0,
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
  };
  // clang-format on
  EXPECT_EQ(file_bytes(h->fd), std::string(reinterpret_cast<const char *>(expected), sizeof expected));
  nnt_multitype read[5];
  ASSERT_EQ(h->opset->get_range(h.get(), 60, 5, read), 5);
  cells[2].count = 65535;
  cells[2].stddev = 0;
  cells[2].value.v_uint64 = 0xfffffffe;
  EXPECT_TRUE(same_cell(read[0], nnt_multitype{}));
  for (int i = 0; i < 3; i++) EXPECT_TRUE(same_cell(read[1 + i], cells[i])) << show_cell(read[1 + i]);
  EXPECT_TRUE(same_cell(read[4], nnt_multitype{}));
  EXPECT_EQ(h->opset->get_apocalypse(h.get()), 300U);
}

TEST(nnt_image, what_opens) {
  const struct {
    std::string bytes;
    const char *error;
  } cases[] = {
      {std::string(15, 'N'), "could not read header"},
      {header(60, 60, "NNT2"), "unknown version"},
      {header(0, 60), "invalid period"},
      {header(60, 61), "epoch misaligned"},
      {header(60, 5'000'000'040), "bad epoch"},
      {header(1, 5'000'000'000), "bad epoch"},
      {header(1, 4'999'999'999), nullptr},
      {header(60, 60), nullptr},
  };
  for (const auto &c : cases) {
    const int fd = memory_file(c.bytes);
    char *error = nullptr;
    errno = 0;
    const nnt_handle_up h(nnt_open_fd_sync(fd, false, &error));
    EXPECT_STREQ(error, c.error);
    EXPECT_EQ(h == nullptr, c.error != nullptr);
    if (!h) {
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the descriptor is closed";
    } else {
      EXPECT_EQ(h->opset->get_apocalypse(h.get()), h->hdr.epoch);
      nnt_multitype cell;
      EXPECT_EQ(h->opset->get(h.get(), h->hdr.epoch, &cell), 1);
      EXPECT_EQ(cell.type, NNT_TYPE_ABSENT);
    }
    free(error);
  }
  EXPECT_EQ(nnt_create_tmp(nullptr, "/nowhere/at/all", 60, 60, 0600), -1);
  EXPECT_EQ(nnt_create_tmp(nullptr, "/tmp/nnt_image_test", 61, 60, 0600), -1);
  EXPECT_EQ(nnt_create_tmp("NNT2", "/tmp/nnt_image_test", 60, 60, 0600), -1);
  const std::string path = testing::TempDir() + "nnt_image_test.nnt";
  std::filesystem::remove(path);
  EXPECT_EQ(nnt_create(nullptr, path.c_str(), 60, 0, 0600), -1);
  EXPECT_EQ(nnt_create(nullptr, path.c_str(), 120, 60, 0600), 0);
  EXPECT_EQ(std::filesystem::file_size(path), 16U);
  EXPECT_EQ(nnt_create(nullptr, path.c_str(), 120, 60, 0600), -1) << "it exists";
  std::filesystem::remove(path);
}

TEST(nnt_image, what_is_refused_in_a_write) {
  nnt_handle_up h = new_image(600, 60);
  nnt_multitype cells[4] = {cell_L(1), {}, cell_L(3), cell_L(4)};
  EXPECT_EQ(nnt_put_range(h.get(), 600, 1, &cells[1]), -1);
  cells[2].type = NNT_TYPE_STRING;
  EXPECT_EQ(nnt_put_range(h.get(), 600, 4, cells), -1);
  EXPECT_EQ(file_bytes(h->fd).size(), 16U) << "nothing was written";
  cells[2].type = NNT_TYPE_UINT64;
  EXPECT_EQ(nnt_put_range(h.get(), 480, 4, cells), 2) << "slots before the epoch are passed over";
  EXPECT_EQ(get_L(h.get(), 600), 3U);
  EXPECT_EQ(get_L(h.get(), 679), 4U);
  EXPECT_EQ(nnt_put_range(h.get(), 0, 4, cells), 0);
  EXPECT_EQ(nnt_put_range(h.get(), UINT64_MAX - 600, 4, cells), -1);
  nnt_multitype cell;
  EXPECT_EQ(h->opset->get(h.get(), UINT64_MAX, &cell), 1);
  EXPECT_EQ(cell.type, NNT_TYPE_ABSENT);
}

TEST(nnt_image, damaged_records) {
  nnt_handle_up h = new_image(60, 60);
  const nnt_multitype cells[3] = {cell_L(1), cell_L(2), cell_L(3)};
  ASSERT_EQ(nnt_put_range(h.get(), 60, 3, cells), 3);
  const auto damage = [&](uint64_t offset, uint8_t first, uint8_t second) {
    const uint8_t bytes[] = {first, second};
    ASSERT_EQ(pwrite(h->fd, bytes, 2, static_cast<off_t>(offset)), 2);
  };
  nnt_multitype cell = cells[0], read[3];
  damage(16 + 32, 0x55, NNT_TYPE_UINT64 | 8);  // checksum
  EXPECT_EQ(h->opset->get(h.get(), 120, &cell), -1);
  EXPECT_EQ(h->opset->get_range(h.get(), 60, 3, read), 3);
  EXPECT_EQ(read[0].value.v_uint64, 1U);
  EXPECT_EQ(read[1].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(read[2].value.v_uint64, 3U);
  const nnt_readfast_up view(nnt_acquire_readfast(h.get()));
  EXPECT_EQ(nnt_get_fast(view.get(), 120, &cell), -1);
  EXPECT_EQ(cell.type, NNT_TYPE_ABSENT);
  // the same checksum holds for a string and for a count without a type
  damage(16, 7 ^ 1 ^ 1, 7);
  EXPECT_EQ(nnt_get_fast(view.get(), 60, &cell), -1);
  damage(16, 0, 0);
  EXPECT_EQ(nnt_get_fast(view.get(), 60, &cell), -1);
  // a torn record
  ASSERT_EQ(ftruncate(h->fd, 16 + 64 + 31), 0);
  EXPECT_EQ(h->opset->get(h.get(), 180, &cell), -1);
  EXPECT_EQ(h->opset->get_range(h.get(), 60, 3, read), -1);
  EXPECT_EQ(h->opset->get_range(h.get(), 60, 2, read), 2);
}

TEST(nnt_image, views_and_raw_ranges) {
  nnt_handle_up h = new_image(600, 60);
  std::vector<nnt_multitype> cells(10);
  for (size_t i = 0; i < cells.size(); i++) cells[i] = cell_L(i + 1);
  ASSERT_EQ(nnt_put_range(h.get(), 600, 10, cells.data()), 10);
  const nnt_readfast_up view(nnt_acquire_readfast(h.get()));
  h.reset();
  EXPECT_EQ(nnt_get_fast_epoch(view.get()), 600U);
  EXPECT_EQ(nnt_get_fast_apocalypse(view.get()), 1200U);
  nnt_multitype cell;
  for (const uint64_t t : {599UL, 1200UL, UINT64_MAX}) {
    EXPECT_EQ(nnt_get_fast(view.get(), t, &cell), 1);
    EXPECT_EQ(cell.type, NNT_TYPE_ABSENT);
  }
  const auto raw = [&](uint64_t start, uint64_t count) {
    nnt_range_raw_data out;
    EXPECT_EQ(nnt_get_raw_range(view.get(), start, count, &out), 0);
    std::string image(reinterpret_cast<const char *>(out.new_hdr), sizeof(nnt_hdr));
    free(out.new_hdr);
    EXPECT_EQ(out.original_epoch, 600U);
    EXPECT_EQ(out.original_apocalypse, 1200U);
    EXPECT_EQ(out.data_size, static_cast<int>(out.datapoints * 32));
    return out.data_size
               ? image.append(reinterpret_cast<const char *>(out.data), static_cast<size_t>(out.data_size))
               : image;
  };
  EXPECT_EQ(raw(1200, 5), header(60, 600));
  EXPECT_EQ(raw(720, 0), header(60, 720));
  EXPECT_EQ(raw(0, UINT64_MAX).size(), 16U + 320);
  // what a range gives is an image of its own
  const std::string image = raw(720, 3);
  EXPECT_EQ(image.substr(0, 16), header(60, 720));
  const nnt_readfast_up part(nnt_acquire_transient(image.data(), image.size()));
  EXPECT_EQ(nnt_get_fast_apocalypse(part.get()), 900U);
  EXPECT_EQ(nnt_get_fast(part.get(), 780, &cell), 1);
  EXPECT_EQ(cell.value.v_uint64, 4U);

  EXPECT_EQ(nnt_acquire_transient(image.data(), 15), nullptr);
  EXPECT_EQ(nnt_acquire_transient("NNT0............", 16), nullptr);
  EXPECT_EQ(nnt_acquire_transient(header(0, 0).data(), 16), nullptr) << "no slots without a period";
  void *mapping = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(mapping, image.data(), image.size());
  nnt_readfast_up mapped(nnt_acquire_transient_mmap(mapping, 4096));
  EXPECT_EQ(nnt_get_fast(mapped.get(), 840, &cell), 1);
  EXPECT_EQ(cell.value.v_uint64, 5U);
}

TEST(nnt_image, moving_records_between_images) {
  nnt_handle_up h = new_image(600, 60);
  const nnt_multitype cells[3] = {cell_L(1), cell_L(2), cell_L(3)};
  ASSERT_EQ(nnt_put_range(h.get(), 600, 3, cells), 3);
  // an earlier epoch leaves a hole in front
  const int fd = memory_file("");
  EXPECT_EQ(h->opset->rewind_epoch(h.get(), 600, fd), -1);
  ASSERT_EQ(h->opset->rewind_epoch(h.get(), 500, fd), 0);
  nnt_handle_up early(nnt_open_fd_sync(fd, false, nullptr));
  EXPECT_EQ(early->hdr.epoch, 480U);
  EXPECT_EQ(early->opset->get_apocalypse(early.get()), 780U);
  EXPECT_EQ(get_L(early.get(), 540), 0U);
  EXPECT_EQ(get_L(early.get(), 600), 1U);
  // all of the source's records replace the target's
  nnt_handle_up late = new_image(660, 60), other = new_image(600, 30);
  const nnt_multitype two[2] = {cell_L(8), cell_L(9)};
  ASSERT_EQ(nnt_put_range(late.get(), 660, 2, two), 2);
  ASSERT_EQ(early->opset->merge(early.get(), late.get(), nullptr), 0);
  EXPECT_TRUE(early->dirty);
  EXPECT_EQ(get_L(early.get(), 600), 1U);
  EXPECT_EQ(get_L(early.get(), 660), 8U);
  EXPECT_EQ(get_L(early.get(), 720), 9U);
  char *error = nullptr;
  EXPECT_EQ(late->opset->merge(late.get(), early.get(), &error), -1) << "the target begins later";
  EXPECT_STREQ(error, "Invalid argument");
  free(error);
  EXPECT_EQ(h->opset->merge(h.get(), other.get(), nullptr), -1) << "another period";
  // what is before the target's epoch goes
  nnt_handle_up rest = new_image(660, 60);
  ASSERT_EQ(h->opset->del(h.get(), rest.get(), 660), 0);
  EXPECT_EQ(get_L(rest.get(), 660), 2U);
  EXPECT_EQ(get_L(rest.get(), 720), 3U);
  EXPECT_EQ(rest->opset->get_apocalypse(rest.get()), 780U);
  EXPECT_EQ(h->opset->del(rest.get(), h.get(), 600), -1);
}

}  // namespace
