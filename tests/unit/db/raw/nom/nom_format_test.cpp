#include "db/raw/nom/nom_format.h"

#include "nom_support.h"

namespace {

using namespace nom_support;

std::string hex(std::string_view bytes) {
  std::string out;
  for (const unsigned char c : bytes) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", c);
    out += digits;
  }
  return out;
}

TEST(nom_format, key_is_little_endian_id_then_big_endian_hour) {
  char key[KEY_LEN];
  make_key(0x0102030405060708, 1699999200, key);
  EXPECT_EQ(hex({key, KEY_LEN}),
            "0807060504030201"
            "6553ede0");
  EXPECT_EQ(id_from_key(key), 0x0102030405060708u);
  uint32_t floor_s = 0;
  EXPECT_TRUE(timestamp_from_key({key, KEY_LEN}, &floor_s));
  EXPECT_EQ(floor_s, 1699999200u);
  EXPECT_FALSE(timestamp_from_key({key, KEY_LEN - 1}, &floor_s));
}

TEST(nom_format, family_is_the_xor_of_the_id_bytes) {
  EXPECT_EQ(family_of(0), 0u);
  EXPECT_EQ(family_of(0x0102030405060708), 0u);  // 1^2^3^4^5^6^7^8 = 8
  EXPECT_EQ(family_of(0xff00000000000001), 6u);  // fe
  EXPECT_EQ(family_of(0xff00000000000001, 4), 2u);
}

TEST(nom_format, checksum_is_the_bytewise_xor_at_every_length) {
  std::string bytes;
  for (int i = 0; i < 40; ++i) {
    uint8_t sum = 0;
    for (const char c : bytes) sum ^= static_cast<uint8_t>(c);
    EXPECT_EQ(xor_bytes(bytes.data(), bytes.size()), sum) << bytes.size();
    bytes.push_back(static_cast<char>(i * 37 + 11));
  }
}

TEST(nom_format, records_whose_length_does_not_fit_are_not_well_formed) {
  const std::string numbers = record_builder_c(NOM_TYPE_INT32).add<int32_t>(5, 1).add<int32_t>(6, 2);
  EXPECT_TRUE(is_well_formed(numbers));
  for (size_t length = 0; length < numbers.size(); ++length)
    EXPECT_FALSE(is_well_formed(numbers.substr(0, length)));
  EXPECT_FALSE(is_well_formed(numbers + "x"));

  const std::string hists = hist_record(NOM_TYPE_HISTOGRAM, {{5, "abc"}, {6, ""}});
  EXPECT_TRUE(is_well_formed(hists));
  for (size_t length = 0; length < hists.size(); ++length)
    EXPECT_FALSE(is_well_formed(hists.substr(0, length)));
  for (const size_t byte : {10u, 22u, 30u}) {  // places and a length
    for (const char wrong : {'\1', '\x7f', '\xff'}) {
      std::string bad = hists;
      bad[byte] ^= wrong;
      EXPECT_FALSE(is_well_formed(bad)) << byte;
      bad = hists;
      bad[byte + 7] ^= wrong;
      EXPECT_FALSE(is_well_formed(bad)) << byte;
    }
  }
  EXPECT_FALSE(is_well_formed(std::string("\0\5\xff\xff\xff\xff", 6)));
  EXPECT_FALSE(is_well_formed(std::string("\0\6\xff\xff\xff\xff", 6)));
}

class nom_bytes : public shard_test_c {};

// Each kind of sample, alone, as it is stored.
TEST_F(nom_bytes, single_samples) {
  data_db_c &db = open();
  using db::raw::nom_sample_t;
  const uint64_t ts = HOUR_MS + 0x123456;
  write(db, {nom_sample_t::of_int32(1, ts, -2), nom_sample_t::of_uint32(2, ts, 0xfffffffe),
             nom_sample_t::of_int64(3, ts, -2, 511), nom_sample_t::of_uint64(4, ts, 1ull << 63),
             nom_sample_t::of_double(5, ts, -1.5), nom_sample_t::of_null(6, ts, 'n', 1)});
  const auto stored = [&](uint64_t id) { return hex(record(db, id, HOUR_S).value_or("")); };
  EXPECT_EQ(stored(1),
            "71"
            "01"
            "01000000"
            "56341200"
            "feffffff");
  EXPECT_EQ(stored(2),
            "72"
            "02"
            "01000000"
            "56341200"
            "feffffff");
  EXPECT_EQ(stored(3),
            "cc"
            "03"
            "01000000"
            "5634d27f"
            "feffffffffffffff");
  EXPECT_EQ(stored(4),
            "f5"
            "04"
            "01000000"
            "56341200"
            "0000000000000080");
  EXPECT_EQ(stored(5),
            "33"
            "05"
            "01000000"
            "56341200"
            "000000000000f8bf");
  EXPECT_EQ(stored(6),
            "b4"
            "05"
            "01000000"
            "56345280"
            "0000000000000000");
}

}  // namespace
