#include "db/raw/nom/nom_batch.h"

#include <algorithm>
#include <random>

#include "db/raw/nom/nom_merge.h"
#include "nom_support.h"

namespace {

using namespace nom_support;
using db::raw::nom_sample_t;

TEST(nom_batch, refs_go_into_key_order_and_keep_that_of_arrival) {
  std::mt19937_64 random(7);
  for (const size_t count : {0u, 1u, 50u, 191u, 192u, 5000u}) {
    for (const uint64_t ids : {1ull, 40ull, 70000ull, ~0ull}) {
      std::vector<sample_ref_t> refs, scratch;
      for (uint32_t i = 0; i < count; ++i) {
        refs.push_back(make_ref(random() % ids, HOUR_MS + random() % 3 * RECORD_SIZE_MS, i));
      }
      auto expected = refs;
      std::stable_sort(expected.begin(), expected.end(), [](const sample_ref_t &a, const sample_ref_t &b) {
        char x[KEY_LEN], y[KEY_LEN];
        make_key(__builtin_bswap64(a.sort_id), a.floor_s, x);
        make_key(__builtin_bswap64(b.sort_id), b.floor_s, y);
        return memcmp(x, y, KEY_LEN) < 0;
      });
      sort_refs(&refs, &scratch);
      ASSERT_TRUE(std::equal(refs.begin(), refs.end(), expected.begin(), expected.end(),
                             [](const auto &a, const auto &b) { return memcmp(&a, &b, sizeof a) == 0; }))
          << count << " of " << ids;
    }
  }
}

// Two families of RocksDB's numbers 0 and 300: tags, varints, one operand for a metric and hour.
TEST(nom_batch, serialised_form) {
  const std::vector<nom_sample_t> samples = {
      nom_sample_t::of_int32(3, HOUR_MS + 7, 1),   // family 1
      nom_sample_t::of_int32(2, HOUR_MS + 5, -1),  // family 0
      nom_sample_t::of_uint32(3, HOUR_MS + 4, 2),  // the same record as the first, wider
      nom_sample_t::of_int32(3, HOUR_MS + RECORD_SIZE_MS, 3),
  };
  const uint32_t family_ids[] = {0, 300};
  batch_builder_c builder;
  builder.start(family_ids);
  for (uint32_t i = 0; i < samples.size(); ++i) builder.add(samples[i].surrogate_id, samples[i].ts_ms, i);
  std::vector<std::string> batches;
  std::vector<size_t> counts;
  builder.write_numeric(samples, [&](std::string_view batch, size_t count) {
    batches.emplace_back(batch);
    counts.push_back(count);
  });
  const auto key = [](uint64_t id, uint64_t floor_s) {
    std::string out(KEY_LEN, '\0');
    make_key(id, static_cast<uint32_t>(floor_s), out.data());
    return out;
  };
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(counts[0], 3u);
  EXPECT_EQ(batches[0],
            std::string("\0\0\0\0\0\0\0\0\3\0\0\0", 12) + "\2\14" + key(2, HOUR_S) + "\16" +
                std::string(record_builder_c(1).add<int32_t>(5, -1)) + "\6\xac\2\14" + key(3, HOUR_S) + "\36" +
                std::string(record_builder_c(3).add<int64_t>(7, 1).add<int64_t>(4, 2)) + "\6\xac\2\14" +
                key(3, HOUR_S + 3600) + "\16" + std::string(record_builder_c(1).add<int32_t>(0, 3)));
}

TEST(nom_batch, a_large_set_makes_several_batches) {
  std::vector<nom_sample_t> samples;
  for (uint32_t i = 0; i < 100000; ++i) samples.push_back(nom_sample_t::of_double(i, HOUR_MS, i));
  const uint32_t family_ids[] = {0, 1, 2, 3, 4, 5, 6, 7};
  batch_builder_c builder;
  for (int round = 0; round < 2; ++round) {
    builder.start(family_ids);
    for (uint32_t i = 0; i < samples.size(); ++i) builder.add(samples[i].surrogate_id, samples[i].ts_ms, i);
    size_t operands = 0, largest = 0, batches = 0;
    builder.write_numeric(samples, [&](std::string_view batch, size_t count) {
      uint32_t in_header;
      memcpy(&in_header, batch.data() + 8, sizeof in_header);
      EXPECT_EQ(in_header, count);
      operands += count;
      largest = std::max(largest, batch.size());
      ++batches;
    });
    EXPECT_EQ(operands, samples.size());
    EXPECT_LE(largest, (1u << 20) + 64);
    EXPECT_EQ(batches, 4u);
  }
}

class nom_batch_db : public shard_test_c {};

// The compact form in one set, in many, and the entry form lead to the same records.
TEST_F(nom_batch_db, both_forms_give_the_same_bytes) {
  std::mt19937_64 random(11);
  std::vector<nom_sample_t> samples;
  for (int i = 0; i < 3000; ++i) {
    const uint64_t id = 1 + random() % 20, ts = HOUR_MS + random() % 400 * 20000;
    const auto generation = static_cast<uint16_t>(random() % 2);
    // Ids below 10 have one type, the others any, with values that no other type can hold exactly.
    const auto value = static_cast<int64_t>(random());
    switch (id < 10 ? id % 5 : random() % 5) {
      case 0:
        samples.push_back(nom_sample_t::of_int32(id, ts, static_cast<int32_t>(value), generation));
        break;
      case 1:
        samples.push_back(nom_sample_t::of_uint32(id, ts, static_cast<uint32_t>(value), generation));
        break;
      case 2:
        samples.push_back(nom_sample_t::of_int64(id, ts, value, generation));
        break;
      case 3:
        samples.push_back(nom_sample_t::of_uint64(id, ts, static_cast<uint64_t>(value), generation));
        break;
      default:
        samples.push_back(nom_sample_t::of_double(id, ts, static_cast<double>(value) / 3, generation));
        break;
    }
    if (random() % 16 == 0) samples.back() = nom_sample_t::of_null(id, ts, samples.back().type, generation);
  }
  const auto all_records = [](data_db_c &db) {
    std::vector<std::string> found;
    EXPECT_TRUE(db.stream_for_reconstitute(
        0, UINT32_MAX, &found, [](void *, uint64_t) { return db::raw::reconstitute_metric_e::send; },
        [](void *c, uint64_t id, uint32_t ts_s, std::string_view block) {
          static_cast<std::vector<std::string> *>(c)->push_back(std::to_string(id) + ":" +
                                                                std::to_string(ts_s) + std::string(block));
          return true;
        }));
    return found;
  };
  std::vector<std::vector<std::string>> results;
  for (int form = 0; form < 3; ++form) {
    const temp_dir_c dir;
    const auto shard = factory_c(m_params).open_priv(dir.path());
    data_db_c &db = shard->get_data_db();
    if (form == 0) write(db, samples);
    if (form == 1) write_as_entries(db, samples);
    if (form == 2) {
      for (size_t i = 0; i < samples.size(); i += 100) {
        write(db, {samples.begin() + static_cast<long>(i), samples.begin() + static_cast<long>(i) + 100});
        if (i % 700 == 0) db.flush();
      }
      db.flush();
    }
    results.push_back(all_records(db));
  }
  EXPECT_EQ(results[0].size(), 20u * 3);  // 8,000 seconds lie in three hours
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

}  // namespace
