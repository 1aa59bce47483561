#include "db/raw/nom/iter_wrapper.h"

#include <rocksdb/c.h>

#include <map>
#include <random>

#include "nom_support.h"
#include "support/log_capture.h"

namespace {

using namespace nom_support;
using db::raw::nom_sample_t;
using db::raw::raw_reader_seek_e;
using db::raw::SEEK_EXACT;
using db::raw::SEEK_NEXT_ON_MISS;
using db::raw::SEEK_PREV_ON_MISS;

std::optional<met_t> at(const iter_wrapper_c &iter) {
  if (!iter.is_valid()) return {};
  nom_position_value_t value;
  std::string error;
  EXPECT_TRUE(iter.get_current_value(&value, &error));
  return met_t{value.ts_ms, number_of(value.value)};
}

TEST(iter_wrapper, seeks_and_steps_within_a_block_of_memory) {
  const std::string block =
      record_builder_c(1).add<int32_t>(10, 1).add<int32_t>(20, 2, 511).add<int32_t>(3599999, 3, 0, true);
  iter_wrapper_c iter(numeric, 77, HOUR_S, block);
  const auto find = [&](uint64_t ts, raw_reader_seek_e seek) -> uint64_t {
    return iter.find(ts, seek) ? at(iter)->ts_ms : 0;
  };
  EXPECT_EQ(find(HOUR_MS + 20, SEEK_EXACT), HOUR_MS + 20);
  EXPECT_EQ(find(HOUR_MS + 19, SEEK_EXACT), 0u);
  EXPECT_EQ(find(HOUR_MS + 11, SEEK_NEXT_ON_MISS), HOUR_MS + 20);
  EXPECT_EQ(find(HOUR_MS + 19, SEEK_PREV_ON_MISS), HOUR_MS + 10);
  EXPECT_EQ(find(HOUR_MS + 9, SEEK_PREV_ON_MISS), 0u);
  EXPECT_EQ(find(HOUR_MS - 1, SEEK_NEXT_ON_MISS), HOUR_MS + 10);
  EXPECT_EQ(find(HOUR_MS - 1, SEEK_PREV_ON_MISS), 0u);
  EXPECT_EQ(find(HOUR_MS + 3600000, SEEK_PREV_ON_MISS), HOUR_MS + 3599999);
  EXPECT_EQ(find(HOUR_MS + 3600000, SEEK_NEXT_ON_MISS), 0u);

  ASSERT_TRUE(iter.find(HOUR_MS + 20, SEEK_EXACT));
  nom_position_value_t value;
  std::string error;
  ASSERT_TRUE(iter.get_current_value(&value, &error));
  EXPECT_EQ(value.generation, 511);
  EXPECT_FALSE(value.value.is_null);
  EXPECT_TRUE(iter.do_next());
  ASSERT_TRUE(iter.get_current_value(&value, &error));
  EXPECT_TRUE(value.value.is_null);
  EXPECT_FALSE(iter.do_next());
  EXPECT_FALSE(iter.is_valid());
  EXPECT_FALSE(iter.do_prev());  // an ended walk stays ended

  iter.find(HOUR_MS + 20, SEEK_EXACT);
  EXPECT_EQ(iter.get_last_measurement_index_before(HOUR_MS), NO_INDEX);
  EXPECT_EQ(iter.get_last_measurement_index_before(HOUR_MS + 20), 0u);
  EXPECT_EQ(iter.get_last_measurement_index_before(HOUR_MS + 9999999), 2u);
}

TEST(iter_wrapper, ranges_are_cut_out_of_a_block) {
  const std::string numbers = record_builder_c(2).add(1, 1u).add(2, 2u).add(3, 3u).add(4, 4u);
  iter_wrapper_c iter(numeric, 77, HOUR_S, numbers);
  ASSERT_TRUE(iter.find(HOUR_MS + 2, SEEK_EXACT));
  EXPECT_FALSE(iter.delete_from_curr_thru_index(4));
  EXPECT_FALSE(iter.delete_from_curr_thru_index(0));
  EXPECT_TRUE(iter.delete_from_curr_thru_index(2));
  EXPECT_EQ(iter.get_record(), std::string(record_builder_c(2).add(1, 1u).add(4, 4u)));
  EXPECT_EQ(at(iter), (met_t{HOUR_MS + 4, 4}));
  EXPECT_TRUE(iter.delete_from_curr_to_end());
  EXPECT_EQ(iter.get_record(), std::string(record_builder_c(2).add(1, 1u)));
  EXPECT_FALSE(iter.is_valid());

  iter_wrapper_c hists(histogram, 77, HOUR_S, hist_record(6, {{1, "one"}, {2, "zwei"}, {3, "three"}, {4, ""}}));
  ASSERT_TRUE(hists.find(HOUR_MS + 2, SEEK_EXACT));
  EXPECT_TRUE(hists.delete_from_curr_thru_index(2));
  EXPECT_EQ(hists.get_record(), hist_record(6, {{1, "one"}, {4, ""}}));
  ASSERT_TRUE(hists.find(HOUR_MS, SEEK_NEXT_ON_MISS));
  EXPECT_TRUE(hists.delete_from_curr_thru_index(0));
  EXPECT_EQ(hists.get_record(), hist_record(6, {{4, ""}}));
}

class iter_wrapper_db : public shard_test_c {
 protected:
  static void put(data_db_c &db, std::string_view key, std::string_view value) {
    rocksdb_writeoptions_t *const options = rocksdb_writeoptions_create();
    char *error = nullptr;
    rocksdb_put_cf(db.get_handle().db, options,
                   db.get_handle().column_family_handles[family_of(id_from_key(key.data()))], key.data(),
                   key.size(), value.data(), value.size(), &error);
    EXPECT_EQ(error, nullptr);
    rocksdb_writeoptions_destroy(options);
  }
  static std::string key(uint64_t id, uint64_t floor_s) {
    std::string out(KEY_LEN, '\0');
    make_key(id, static_cast<uint32_t>(floor_s), out.data());
    return out;
  }
};

// Every seek and walk against an ordered map, over hours with gaps, beside neighbours of the same family.
TEST_F(iter_wrapper_db, any_seek_and_walk_against_a_map) {
  data_db_c &db = open();
  std::mt19937 random(5);
  const uint64_t ids[] = {8, 16, 24};  // the family of 8, 16 and 24 is 0
  std::map<uint64_t, double> expected;
  std::vector<nom_sample_t> samples;
  for (const uint64_t id : ids) {
    for (int i = 0; i < 60; ++i) {
      const uint64_t hour = random() % 12 / 3 * 3, offset = random() % 5 == 0 ? 3599999 : random() % 7;
      samples.push_back(nom_sample_t::of_double(id, HOUR_MS + hour * RECORD_SIZE_MS + offset, 1.0 + i));
      if (id != 16) continue;
      double &kept = expected[samples.back().ts_ms];
      kept = std::max(kept, 1.0 + i);
    }
  }
  for (size_t i = 0; i < samples.size(); i += 45) {
    write(db, {samples.begin() + static_cast<long>(i), samples.begin() + static_cast<long>(i) + 45});
    if (i == 45) db.flush();
  }

  std::vector<uint64_t> times = {0, HOUR_MS - 1, TIME_LIMIT_MS - 1, TIME_LIMIT_MS, UINT64_MAX};
  for (uint64_t hour = 0; hour < 11; ++hour) {
    for (const uint64_t offset : {0, 3, 7, 3599998, 3599999})
      times.push_back(HOUR_MS + hour * RECORD_SIZE_MS + offset);
  }
  for (const auto &[ts, value] : expected) times.insert(times.end(), {ts - 1, ts, ts + 1});
  for (const uint64_t ts : times) {
    for (const raw_reader_seek_e seek : {SEEK_EXACT, SEEK_NEXT_ON_MISS, SEEK_PREV_ON_MISS}) {
      auto place = expected.lower_bound(ts);
      if (seek == SEEK_PREV_ON_MISS && (place == expected.end() || place->first != ts)) {
        place = place == expected.begin() ? expected.end() : std::prev(place);
      } else if (seek == SEEK_EXACT && place != expected.end() && place->first != ts) {
        place = expected.end();
      }
      const auto iter = db.find_now(16, ts, seek);
      ASSERT_EQ(iter != nullptr, place != expected.end()) << ts << " " << seek;
      if (iter == nullptr) continue;
      ASSERT_EQ(at(*iter), (met_t{place->first, place->second})) << ts << " " << seek;
      // Five steps to the left, then to the right past the end.
      for (int i = 0; i < 5 && place != expected.begin(); ++i) {
        --place;
        ASSERT_TRUE(iter->do_prev());
        ASSERT_EQ(at(*iter), (met_t{place->first, place->second}));
      }
      while (++place != expected.end()) {
        ASSERT_TRUE(iter->do_next());
        ASSERT_EQ(at(*iter), (met_t{place->first, place->second}));
      }
      EXPECT_FALSE(iter->do_next());
    }
  }
  auto first = db.find_now(16, 0, SEEK_NEXT_ON_MISS);
  EXPECT_FALSE(first->do_prev());
}

TEST_F(iter_wrapper_db, bad_records_are_passed_over) {
  data_db_c &db = open();
  std::string good[3];
  for (uint32_t hour = 0; hour < 3; ++hour)
    good[hour] = record_builder_c(1).add<int32_t>(5, static_cast<int32_t>(hour));
  std::string flipped = good[1];
  flipped[9] ^= 1;
  std::string long_count = good[1];
  long_count[2] = 2;
  seal(&long_count);
  put(db, key(8, HOUR_S), good[0]);
  put(db, key(8, HOUR_S + 7200), good[2]);
  const std::pair<std::string, std::string> cases[] = {
      {flipped, "ERROR: Bad nomdb record checksum"},
      {long_count, "ERROR: Bad nomdb record length"},
      {hist_record(6, {{5, "x"}}), "ERROR: Bad nomdb numeric record datatype"},
      {"", "ERROR: Bad nomdb record checksum"},
  };
  for (const auto &[bytes, words] : cases) {
    put(db, key(8, HOUR_S + 3600), bytes);
    const log_capture_c log("error");
    EXPECT_EQ(at(*db.find_now(8, HOUR_MS + RECORD_SIZE_MS + 5, SEEK_NEXT_ON_MISS)),
              (met_t{HOUR_MS + 7200005, 2}));
    EXPECT_EQ(at(*db.find_now(8, HOUR_MS + RECORD_SIZE_MS + 5, SEEK_PREV_ON_MISS)), (met_t{HOUR_MS + 5, 0}));
    EXPECT_EQ(db.find_now(8, HOUR_MS + RECORD_SIZE_MS + 5, SEEK_EXACT), nullptr);
    const auto walk = db.find_now(8, 0, SEEK_NEXT_ON_MISS);
    EXPECT_TRUE(walk->do_next());
    EXPECT_EQ(at(*walk), (met_t{HOUR_MS + 7200005, 2}));
    EXPECT_TRUE(log.contains(words)) << log.text();
  }
}

TEST_F(iter_wrapper_db, a_key_of_another_length_is_passed_over) {
  data_db_c &db = open();
  put(db, key(8, HOUR_S), std::string(record_builder_c(1).add<int32_t>(5, 1)));
  put(db, key(8, HOUR_S) + "x", std::string(record_builder_c(1).add<int32_t>(5, 9)));
  put(db, key(8, HOUR_S + 3600), std::string(record_builder_c(1).add<int32_t>(5, 2)));
  const log_capture_c log("error");
  const auto iter = db.find_now(8, 0, SEEK_NEXT_ON_MISS);
  EXPECT_TRUE(iter->do_next());
  EXPECT_EQ(at(*iter), (met_t{HOUR_MS + 3600005, 2}));
  EXPECT_TRUE(log.contains("ERROR: Bad nomdb key length"));
}

}  // namespace
