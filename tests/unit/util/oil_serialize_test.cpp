#include "util/oil_serialize.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "fbs32/oil_generated.h"

namespace {

using bytes_t = std::vector<uint8_t>;

// Reads a serialised list by the rules of the format alone.
class walker_c {
 public:
  explicit walker_c(const bytes_t &bytes) : m_bytes(bytes) {}
  std::vector<std::pair<uint32_t, uint32_t>> intervals() const {
    std::vector<std::pair<uint32_t, uint32_t>> result;
    const size_t vector_at = field(u32(0), 0);
    if (vector_at == 0) return result;
    const size_t vector = vector_at + u32(vector_at);
    for (size_t i = 0; i < u32(vector); i++) {
      const size_t slot = vector + 4 + 4 * i, table = slot + u32(slot);
      const size_t first = field(table, 0), last = field(table, 1);
      result.emplace_back(first ? u32(first) : 0, last ? u32(last) : 0);
    }
    return result;
  }

 private:
  uint32_t u32(size_t at) const {
    uint32_t v;
    memcpy(&v, &m_bytes.at(at), 4);
    return v;
  }
  // Where the field of that id stands in a table; 0 when it is absent.
  size_t field(size_t table, size_t id) const {
    const size_t vtable = table - u32(table);
    uint16_t size, offset;
    memcpy(&size, &m_bytes.at(vtable), 2);
    if (4 + 2 * id >= size) return 0;
    memcpy(&offset, &m_bytes.at(vtable + 4 + 2 * id), 2);
    return offset ? table + offset : 0;
  }
  const bytes_t &m_bytes;
};

bytes_t serialized(const oil_list_t *list) {
  size_t size;
  const auto bytes = oil_serialize_fb(list, &size);
  return {bytes.get(), bytes.get() + size};
}

}  // namespace

TEST(OilSerialize, WritesTheFieldsUnderTheirIds) {
  const oil_ptr list(oil_alloc());
  oil_put(list.get(), 0, 7);  // a zero is a default and takes no room
  oil_put(list.get(), 5666, 5667);
  EXPECT_EQ(walker_c(serialized(list.get())).intervals(),
            (std::vector<std::pair<uint32_t, uint32_t>>{{0, 7}, {5666, 5667}}));
  EXPECT_TRUE(walker_c(serialized(nullptr)).intervals().empty());
}

TEST(OilSerialize, ReadsBytesWrittenByHand) {
  const bytes_t bytes = {12, 0, 0,  0,                              // root
                         6,  0, 8,  0, 4,   0, 0, 0,                // vtable of OilList
                         8,  0, 0,  0, 4,   0, 0, 0,                // OilList: its vtable, entries at 20
                         1,  0, 0,  0, 12,  0, 0, 0,                // one entry, at 36
                         8,  0, 12, 0, 4,   0, 8, 0,                // vtable of OilInterval
                         8,  0, 0,  0, 100, 0, 0, 0, 44, 1, 0, 0};  // OilInterval: [100, 300]
  const oil_ptr list = oil_deserialize_fb(bytes.data(), bytes.size());
  ASSERT_TRUE(list);
  uint32_t first, last;
  ASSERT_TRUE(oil_epoch_apoc(list.get(), &first, &last));
  EXPECT_EQ(first, 100u);
  EXPECT_EQ(last, 300u);
  // the same at an odd address
  bytes_t shifted(1);
  shifted.insert(shifted.end(), bytes.begin(), bytes.end());
  EXPECT_TRUE(oil_exact_match(list.get(), oil_deserialize_fb(shifted.data() + 1, bytes.size()).get()));
}

TEST(OilSerialize, ReturnsAnEqualList) {
  const uint32_t seed = 7;
  std::mt19937 random(seed);
  for (uint32_t count : {0u, 1u, 2u, 500u}) {
    const oil_ptr list(oil_alloc());
    uint32_t at = 0;
    for (uint32_t i = 0; i < count; i++) {
      at += OIL_SLACK + 1 + random() % 1000;
      const uint32_t last = at + random() % 50;
      oil_put(list.get(), at, last);
      at = last;
    }
    const bytes_t bytes = serialized(list.get());
    EXPECT_TRUE(oil_exact_match(list.get(), oil_deserialize_fb(bytes.data(), bytes.size()).get()))
        << count << ", seed " << seed;
  }
}

// Quadratic work would take a minute here.
TEST(OilSerialize, TakesAListInAnyOrder) {
  flatbuffers::FlatBufferBuilder builder;
  std::vector<flatbuffers::Offset<tolvanus::kestdb::OilInterval>> entries;
  for (uint32_t i = 200000; i > 0; i--)
    entries.push_back(tolvanus::kestdb::CreateOilInterval(builder, i * 1000, i * 1000 + 1));
  builder.Finish(tolvanus::kestdb::CreateOilList(builder, builder.CreateVector(entries)));
  const oil_ptr list = oil_deserialize_fb(builder.GetBufferPointer(), builder.GetSize());
  EXPECT_EQ(oil_size(list.get()), 200000u);
  EXPECT_TRUE(oil_valid(list.get()));
}

TEST(OilSerialize, RefusesOrSurvivesDamage) {
  const oil_ptr list(oil_alloc());
  for (uint32_t i = 1; i < 20; i++) oil_put(list.get(), i * 500, i * 500 + 9);
  const bytes_t good = serialized(list.get());
  for (size_t size = 0; size < good.size(); size++) {
    const bytes_t cut(good.begin(), good.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_FALSE(oil_deserialize_fb(cut.data(), cut.size())) << size;
  }
  const uint32_t seed = 11;
  std::mt19937 random(seed);
  for (int i = 0; i < 20000; i++) {
    bytes_t bad = good;
    for (int k = 0; k < 3; k++) bad[random() % bad.size()] = static_cast<uint8_t>(random());
    const oil_ptr read = oil_deserialize_fb(bad.data(), bad.size());
    ASSERT_TRUE(oil_valid(read.get())) << "seed " << seed << " round " << i;
  }
}
