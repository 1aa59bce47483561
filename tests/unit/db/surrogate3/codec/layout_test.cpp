// The bytes of both kinds of file, read by hand.
#include <gtest/gtest.h>

#include "buffer_walk.h"
#include "db/surrogate3/codec/fbs_oil_encoder.h"
#include "db/surrogate3/codec/fbs_surrogate_encoder.h"
#include "support/surrogate_metrics.h"
#include "util/wyhash.h"

namespace db::surrogate3 {

namespace {

using ids_t = std::vector<uint64_t>;

std::string key_bytes(const std::string &name, int check) {
  char uuid[40];
  snprintf(uuid, sizeof uuid, "abcdef00-0000-0000-0000-0000000000%02x-", check);
  return uuid + name + std::string(1, '\0');
}

}  // namespace

TEST(MetadataLayout, EveryFieldIsWhereItBelongs) {
  fbs_surrogate_encoder_c encoder;
  auto tagged = make_stored_metric(9, "cpu|ST[role:db,host:a]", 1, -7, METRIC_TYPE_TEXT);
  velmar_metric_locator_set_egress_function(tagged.get(), EGRESS_FUNCTION_AVG);
  encoder.accept(tagged);
  encoder.accept(make_stored_metric(4, "mem", 2));
  encoder.accept(make_stored_metric(6, "cp", 1));
  encoder.accept(make_stored_metric(5, "mem", 2));  // the name is there already
  for (const uint64_t id : {40, 2, 12}) encoder.accept_tombstone(id);
  encoder.commit(17);

  const buffer_walk_c walk(encoder.buffer());
  const uint64_t root = walk.root();
  EXPECT_EQ(memcmp(encoder.buffer().data() + 8, "FSC2", 4), 0);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 16), 17u);
  EXPECT_EQ(walk.scalar<int32_t>(root, 20), 4);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 12), 2u);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 14), 40u);
  EXPECT_EQ(walk.scalars<uint64_t>(root, 10), (ids_t{2, 12, 40}));
  EXPECT_EQ(walk.scalars<uint64_t>(root, 22), (ids_t{0, 6, 4, 9}));
  EXPECT_EQ(walk.scalars<uint64_t>(root, 24), (ids_t{0, 1, 0, 2}));
  EXPECT_EQ(walk.field(root, 4), 0u);
  EXPECT_EQ(walk.field(root, 18), 0u);

  const uint64_t by_name = walk.child(root, 6), by_id = walk.child(root, 8);
  ids_t ids;
  for (uint64_t i = 0; i < walk.length(by_name); ++i)
    ids.push_back(walk.scalar<uint64_t>(walk.element(by_name, i), 12));
  EXPECT_EQ(ids, (ids_t{6, 9, 4}));  // "…01-cp", "…01-cpu|…", "…02-mem"
  ASSERT_EQ(walk.length(by_id), 3u);
  EXPECT_EQ(walk.element(by_id, 0), walk.element(by_name, 2));  // an entry is stored once
  EXPECT_EQ(walk.element(by_id, 1), walk.element(by_name, 0));
  const uint64_t entry = walk.element(by_id, 2);
  EXPECT_EQ(entry, walk.element(by_name, 1));

  const std::string name = "cpu|ST[host:a,role:db]";
  EXPECT_EQ(walk.text(entry, 4), key_bytes(name, 1));
  EXPECT_EQ(walk.scalar<uint16_t>(entry, 6), METRIC_TYPE_TEXT);
  EXPECT_EQ(walk.scalar<uint8_t>(entry, 8), EGRESS_FUNCTION_AVG);
  EXPECT_EQ(walk.scalar<uint32_t>(entry, 10), static_cast<uint32_t>(-7));
  EXPECT_EQ(walk.scalar<uint64_t>(entry, 12), 9u);
  EXPECT_EQ(walk.text(entry, 14), std::string("\xab\xcd\xef\0\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
  EXPECT_EQ(walk.text(entry, 16),
            std::string(reinterpret_cast<const char *>(velmar_metric_locator_get_hash(tagged.get())), 32));
  EXPECT_EQ(walk.text(entry, 18), name);
  EXPECT_EQ(walk.at<char>(walk.child(entry, 18) + 8 + name.size()), 0);
  EXPECT_EQ(walk.scalar<int32_t>(entry, 20), 14);
  EXPECT_EQ(walk.scalar<uint32_t>(entry, 24), 3u);
  const uint64_t tags = walk.child(entry, 22);
  ASSERT_EQ(walk.length(tags), 2u);
  const uint64_t role = walk.element(tags, 1);
  EXPECT_EQ(walk.scalar<uint16_t>(role, 4), 7);
  EXPECT_EQ(walk.scalar<int8_t>(role, 6), 5);
  EXPECT_EQ(walk.text(role, 8), "role:db");
}

TEST(MetadataLayout, HashTableProbesAndWraps) {
  // two names that both belong into the last of sixteen slots: the second goes to the first slot
  std::vector<std::string> names;
  for (int i = 0; names.size() < 2; ++i) {
    const std::string name = "metric" + std::to_string(i);
    const std::string key = key_bytes(name, 1);
    if (util::wyhash(key) % 16 == 15) names.push_back(name);
  }
  fbs_surrogate_encoder_c encoder;
  encoder.accept(make_stored_metric(1, names[0]));
  encoder.accept(make_stored_metric(2, names[1]));
  encoder.commit(1);

  const buffer_walk_c walk(encoder.buffer());
  const uint64_t table = walk.child(walk.root(), 26);
  EXPECT_EQ(walk.scalar<uint64_t>(table, 6), 16u);
  EXPECT_EQ(walk.scalar<uint64_t>(table, 8), 2u);
  const uint64_t slots = walk.child(table, 4);
  ASSERT_EQ(walk.length(slots), 16u);
  for (uint64_t i = 1; i < 15; ++i) EXPECT_EQ(walk.field(walk.element(slots, i), 4), 0u) << i;
  const uint64_t first = walk.element(slots, 15), second = walk.element(slots, 0);
  EXPECT_EQ(walk.scalar<uint64_t>(first, 6) + walk.scalar<uint64_t>(second, 6), 3u);
  for (const uint64_t entry : {first, second})
    EXPECT_EQ(walk.text(entry, 4), key_bytes(names[walk.scalar<uint64_t>(entry, 6) - 1], 1));
}

TEST(ActivityLayout, EveryFieldIsWhereItBelongs) {
  fbs_oil_encoder_c encoder;
  const auto list = [](std::vector<oil_interval_t> pairs) { return oil_from_pairs(pairs); };
  encoder.accept(8, list({{5000000, 5000002}, {5000500, 5000500}}));
  encoder.accept(3, list({{7, 7}}));
  encoder.accept(3, list({{500, 501}}));  // merged
  encoder.accept(5, list({{1, 1}}));
  encoder.accept(6, list({{4000000000, 4000000001}}));  // beyond what 32 bits of seconds can say
  encoder.accept(9, list({{1, 1}}));
  encoder.accept_tombstone(9);
  encoder.accept_tombstone(1);
  encoder.commit(3);

  const buffer_walk_c walk(encoder.buffer());
  const uint64_t root = walk.root();
  EXPECT_EQ(memcmp(encoder.buffer().data() + 8, "FSC2", 4), 0);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 4), 1u);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 6), 9u);
  EXPECT_EQ(walk.scalar<uint64_t>(root, 8), 3u);
  EXPECT_EQ(walk.scalars<uint64_t>(root, 12), (ids_t{1, 9}));
  EXPECT_EQ(walk.scalars<uint64_t>(root, 14), (ids_t{0, 6, 5, 8, 3}));
  EXPECT_EQ(walk.scalar<int32_t>(root, 18), 0);

  const uint64_t entries = walk.child(root, 10), tree = walk.child(root, 16);
  ASSERT_EQ(walk.length(entries), 4u);
  ASSERT_EQ(walk.length(tree), 5u);
  EXPECT_EQ(walk.at<uint64_t>(tree + 8), 0u);
  EXPECT_EQ(walk.element(tree, 1), walk.element(entries, 2));
  EXPECT_EQ(walk.element(tree, 4), walk.element(entries, 0));
  const auto seconds = [&](uint64_t i) { return walk.scalars<uint32_t>(walk.element(entries, i), 6); };
  EXPECT_EQ(walk.scalar<uint64_t>(walk.element(entries, 3), 4), 8u);
  EXPECT_EQ(seconds(3), (std::vector<uint32_t>{1500000000, 1500000600, 1500150000, 1500150000}));
  EXPECT_EQ(seconds(0), (std::vector<uint32_t>{2100, 2100, 150000, 150300}));
  EXPECT_EQ(seconds(2), (std::vector<uint32_t>{UINT32_MAX, UINT32_MAX}));
}

}  // namespace db::surrogate3
