// Blocks byte by byte, keys, places in the grid, names of shards.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "db/ranged/nntbs/shard/nntbs_block.h"
#include "db/ranged/nntbs/shard/rollup_shard_key.h"

namespace db::ranged::nntbs {
namespace {

// CRC-32 bit by bit, from its polynomial.
uint32_t slow_crc(const uint8_t *bytes, size_t size) {
  uint32_t crc = ~0U;
  for (size_t i = 0; i < size; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0xedb88320U : 0);
  }
  return ~crc;
}

nnt_multitype make_cell() {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_INT64;
  cell.count = 0x010203;
  cell.stddev_present = 1;
  cell.stddev = 0.5F;
  cell.value.v_int64 = -2;
  cell.derivative = 1.0F;
  cell.derivative_stddev = 2.0F;
  cell.counter = 3.0F;
  cell.counter_stddev = 4.0F;
  return cell;
}

TEST(block, bytes) {
  nntbs_block_t block;
  block_init(&block, 0x1122334455667788);
  block_set_cell(&block, 1, make_cell());
  block_seal(&block);
  std::vector<uint8_t> want(4078);
  const uint8_t head[] = {1, 0};
  std::copy_n(head, 2, want.begin());
  const uint8_t creation[] = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
  std::copy_n(creation, 8, want.begin() + 6);
  const uint8_t datum[32] = {
      0x04, 0x03, 0x02, 0x01,                          // int64 with a stddev; count
      0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // -2
      0x00, 0x00, 0x40, 0x40, 0x00, 0x00, 0x80, 0x40,  // counter 3, 4
      0x00, 0x00, 0x80, 0x3f, 0x00, 0x00, 0x00, 0x40,  // derivative 1, 2
      0x00, 0x00, 0x00, 0x3f,                          // stddev 0.5
  };
  std::copy_n(datum, 32, want.begin() + 14 + 32);
  const uint32_t crc = slow_crc(want.data() + 14, 4064);
  for (int i = 0; i < 4; ++i) want[2 + static_cast<size_t>(i)] = static_cast<uint8_t>(crc >> (8 * i));
  EXPECT_EQ(memcmp(&block, want.data(), want.size()), 0);
  EXPECT_TRUE(block_is_sound(block));
}

TEST(block, cells_of_every_type_come_back) {
  std::mt19937_64 random(1);
  nntbs_block_t block;
  block_init(&block, 0);
  std::vector<nnt_multitype> cells(BLOCK_SLOTS);
  for (size_t i = 0; i < cells.size(); ++i) {
    nnt_multitype &c = cells[i];
    c = make_cell();
    c.type = static_cast<nnt_type_t>(random() % (NNT_TYPE_DOUBLE + 1));
    c.count = random() & 0xffffff;
    c.stddev_present = random() % 2;
    if (!c.stddev_present) c.stddev = 0;
    c.value.v_uint64 = random();
    c.derivative = i % 5 ? static_cast<float>(random()) : libvelmar_private_nan_float;
    c.min = c.max = 7;  // in no block
    block_set_cell(&block, i, c);
  }
  for (size_t i = 0; i < cells.size(); ++i) {
    nnt_multitype got{};
    got.min = got.max = 7;
    EXPECT_EQ(block_get_cell(block, i, &got), cells[i].type != NNT_TYPE_ABSENT);
    const nnt_multitype none = [] {
      nnt_multitype n{};
      n.min = n.max = 7;
      return n;
    }();
    EXPECT_EQ(memcmp(&got, cells[i].type == NNT_TYPE_ABSENT ? &none : &cells[i], sizeof got), 0) << i;
  }
}

TEST(block, what_is_not_a_cell) {
  nntbs_block_t block;
  block_init(&block, 0);
  nnt_multitype cell = make_cell();
  block_set_cell(&block, 0, cell);
  block_set_cell(&block, 0, nnt_multitype{});  // clears the slot, the flag for "no stddev" with it
  EXPECT_TRUE(block_slot_is_empty(block, 0));
  block.datum[0].typeinfo_and_count = NNT_TYPE_STRING;
  EXPECT_FALSE(block_get_cell(block, 0, &cell));
  block.datum[0].typeinfo_and_count = 0xf5;
  EXPECT_FALSE(block_get_cell(block, 0, &cell));
  cell = make_cell();
  cell.count = 0x1000001;  // 24 bits are kept
  block_set_cell(&block, 0, cell);
  ASSERT_TRUE(block_get_cell(block, 0, &cell));
  EXPECT_EQ(cell.count, 1U);
}

TEST(block, damage_shows) {
  nntbs_block_t block;
  block_init(&block, 0);
  block_set_cell(&block, 126, make_cell());
  block_seal(&block);
  auto *const bytes = reinterpret_cast<uint8_t *>(&block);
  for (const size_t at : {0UL, 2UL, 14UL, 2000UL, 4077UL}) {
    bytes[at] ^= 0x10;
    EXPECT_FALSE(block_is_sound(block)) << at;
    bytes[at] ^= 0x10;
  }
  EXPECT_TRUE(block_is_sound(block));
}

TEST(block, ends_and_clearing) {
  nntbs_block_t block;
  block_init(&block, 0);
  EXPECT_EQ(block_first_filled(block), BLOCK_SLOTS);
  EXPECT_EQ(block_last_filled(block), BLOCK_SLOTS);
  for (const size_t slot : {3U, 50U, 126U}) block_set_cell(&block, slot, make_cell());
  EXPECT_EQ(block_first_filled(block), 3U);
  EXPECT_EQ(block_last_filled(block), 126U);
  block_clear_before(&block, 7620, 60, 7620);
  EXPECT_EQ(block_first_filled(block), 3U);
  block_clear_before(&block, 7620, 60, 7620 + 50 * 60);  // a cell at that time stays
  EXPECT_EQ(block_first_filled(block), 50U);
  block_clear_before(&block, 7620, 60, 7620 + 50 * 60 + 1);
  EXPECT_EQ(block_first_filled(block), 126U);
  block_clear_before(&block, 7620, 60, UINT64_MAX);
  EXPECT_EQ(block_first_filled(block), BLOCK_SLOTS);
}

TEST(block, places) {
  for (const uint64_t p : {1U, 60U, 86400U}) {
    EXPECT_EQ(block_floor_of(127 * p - p, p), 0U);
    EXPECT_EQ(block_slot_of(127 * p - p, p), 126U);
    EXPECT_EQ(block_floor_of(127 * p, p), 127 * p);
    EXPECT_EQ(block_slot_of(127 * p, p), 0U);
    EXPECT_EQ(block_slot_of(127 * p + p - 1, p), 0U);
  }
  EXPECT_EQ(round_up_to_blocks(86400, 60), 91440U);
  EXPECT_EQ(round_up_to_blocks(91440, 60), 91440U);
}

TEST(block_key, bytes) {
  const block_key_t key = make_block_key(0x0102030405060708, 0x1112131415161718);
  const block_key_t want = {8, 7, 6, 5, 4, 3, 2, 1, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
  EXPECT_EQ(key, want);
  uint64_t sid, floor;
  parse_block_key(key.data(), &sid, &floor);
  EXPECT_EQ(sid, 0x0102030405060708U);
  EXPECT_EQ(floor, 0x1112131415161718U);
}

TEST(rollup_shard_key, names) {
  const auto key = rollup_shard_key_c::parse("60_7620-99060");
  ASSERT_TRUE(key);
  EXPECT_EQ(key->floor_s(), 7620U);
  EXPECT_EQ(key->ceiling_s(), 99060U);
  EXPECT_EQ(key->directory_name(), "60_7620-99060");
  EXPECT_TRUE(key->contains(7620));
  EXPECT_FALSE(key->contains(7619));
  EXPECT_FALSE(key->contains(99060));
  for (const char *bad :
       {"", "60", "60_7620", "60_100-200", "0_0-7620", "60_7620-7620", "60_15240-7620", "060_0-7620",
        "60_0-07620", "60_0-7620x", "60_-7620", "_0-7620", "60_0-7620.deleting", "-60_0-7620",
        "60_0-18446744073709551615", "60_0-99999999999999999999", "99999999999_0-7620", "60_0-7620000000"})
    EXPECT_FALSE(rollup_shard_key_c::parse(bad)) << bad;
  EXPECT_EQ(rollup_shard_key_c::parse_period("77_100-200"), 77U);
  for (const char *name : {"60_0-7620.deleting", "60_0-7620.deleting-12"})
    EXPECT_TRUE(rollup_shard_key_c::is_deleting(name)) << name;
  for (const char *name :
       {"60_0-7620", "x.deleting", "60_0-7620.deletingx", "60_0-7620.deleting-", "60_0-7620.bak"})
    EXPECT_FALSE(rollup_shard_key_c::is_deleting(name)) << name;
}

}  // namespace
}  // namespace db::ranged::nntbs
