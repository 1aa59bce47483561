// Reads across shards, against a sorted list of what was written.

#include "db/raw/reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "support/raw_store.h"
#include "support/surrogate_metrics.h"

namespace db::raw {
namespace {

constexpr uint64_t ID = 77, DAY = raw_store_c::DAY_MS, FIRST = raw_store_c::NOW_S * 1000 - 5 * DAY;

struct seen_t {
  uint64_t ts_ms, bits;
  char type;
  bool is_null;
  bool operator==(const seen_t &) const = default;
};
seen_t seen(const nom_sample_t &s) {
  return {s.ts_ms, s.is_null ? 0 : s.bits, s.type, s.is_null};
}

class reader : public testing::Test {
 protected:
  // An hour holds samples of one kind, as a record does. The third day has no shard.
  void fill(unsigned seed) {
    std::mt19937_64 random(seed);
    std::vector<nom_sample_t> samples;
    for (uint64_t ts = FIRST + random() % 7200000; ts < FIRST + 5 * DAY; ts += 1 + random() % 600000) {
      if ((ts - FIRST) / DAY == 2) continue;
      const char type = "iIlLn"[ts / 3600000 % 5];
      const uint64_t bits = type == 'i' || type == 'I' ? random() & 0xffffffff : random();
      samples.push_back(random() % 7 == 0 ? nom_sample_t::of_null(ID, ts, type)
                                          : nom_sample_t{ID, ts, bits, 0, type, false});
      if (type == 'n' && !samples.back().is_null) samples.back().bits = nom_sample_t::of_double(0, 0, 0.5).bits;
    }
    for (const nom_sample_t &s : samples) m_model[s.ts_ms] = seen(s);
    store.write(samples);
  }
  std::vector<seen_t> expected(uint64_t start_ms, uint64_t end_ms) const {
    std::vector<seen_t> out;
    for (auto it = m_model.lower_bound(start_ms); it != m_model.end() && it->first < end_ms; ++it)
      out.push_back(it->second);
    return out;
  }
  std::vector<seen_t> read_numeric(uint64_t start_ms, uint64_t end_ms, std::string *offline = nullptr) {
    std::vector<seen_t> out;
    std::string error;
    EXPECT_TRUE(reads.read_numeric(
        metric, ID, start_ms, end_ms,
        [&](std::span<const nom_sample_t> samples) {
          for (const nom_sample_t &s : samples) out.push_back(seen(s));
          return true;
        },
        &error, offline))
        << error;
    return out;
  }
  std::vector<seen_t> read_range(uint64_t start_ms, uint64_t end_ms) {
    std::vector<seen_t> out;
    std::string error;
    EXPECT_TRUE(reads.read_range(
        metric, ID, start_ms, end_ms,
        [&](uint64_t ts_ms, raw_value_c &&value) {
          const dorn_record_m_value_t &data = value.get_data();
          out.push_back(
              {ts_ms, data.is_null ? 0 : data.storage.v_uint64, static_cast<char>(data.type), data.is_null});
          return true;
        },
        &error));
    return out;
  }
  std::optional<uint64_t> last_number(uint64_t from_ms, uint64_t before_ms) {
    std::string error;
    const auto found = reads.find_last_number(ID, from_ms, before_ms, &error);
    EXPECT_EQ(error, "");
    return found ? std::optional(found->ts_ms) : std::nullopt;
  }

  raw_store_c store;
  const metric_locator_sp metric = make_metric("reads");
  const reader_c reads{store.shards()};
  std::map<uint64_t, seen_t> m_model;
};

TEST_F(reader, both_forms_give_what_was_written) {
  fill(1);
  std::mt19937_64 random(2);
  std::string error;
  for (int i = 0; i < 60; i++) {
    uint64_t start = FIRST - DAY + random() % (7 * DAY), end = start + random() % (3 * DAY);
    if (i % 3 == 0) start -= start % DAY, end -= end % DAY;  // borders of shards
    ASSERT_EQ(read_numeric(start, end), expected(start, end)) << start << " " << end;
    ASSERT_EQ(read_range(start, end), expected(start, end)) << start << " " << end;
    std::optional<uint64_t> last;
    for (const auto &[ts, s] : m_model)
      if (ts >= start && ts < end && !s.is_null) last = ts;
    ASSERT_EQ(last_number(start, end), last);
  }
  EXPECT_EQ(reads.find_first_time(ID, &error), m_model.begin()->first);
  EXPECT_EQ(reads.find_last_time(ID, &error), m_model.rbegin()->first);
  EXPECT_EQ(reads.find_first_time(ID + 1, &error), std::nullopt);
  EXPECT_EQ(reads.find_last_time(ID + 1, &error), std::nullopt);
}

TEST_F(reader, a_record_larger_than_a_piece_comes_whole_and_stops_where_told) {
  std::vector<nom_sample_t> samples;
  for (uint64_t i = 0; i < 5000; i++) samples.push_back(nom_sample_t::of_uint32(ID, FIRST + i * 500, i & 0xff));
  for (const nom_sample_t &s : samples) m_model[s.ts_ms] = seen(s);
  store.write(samples);
  EXPECT_EQ(read_numeric(FIRST, FIRST + 5000 * 500), expected(FIRST, FIRST + 5000 * 500));
  size_t pieces = 0, taken = 0;
  std::string error;
  EXPECT_TRUE(reads.read_numeric(
      metric, ID, FIRST, FIRST + DAY,
      [&](std::span<const nom_sample_t> piece) {
        taken += piece.size();
        return ++pieces < 2;
      },
      &error));
  EXPECT_EQ(pieces, 2U);
  EXPECT_LT(taken, samples.size());
}

TEST_F(reader, what_a_shard_carries_over_seeds_and_is_never_read) {
  const uint64_t today = FIRST + DAY;
  const nom_sample_t carried = nom_sample_t::of_int64(ID, today - 90000, 5),
                     mine = nom_sample_t::of_int64(ID, today + 60000, 6);
  store.write({&mine, 1});
  raw_store_c::write_to(store.shard_of(today).get(), {&carried, 1});
  EXPECT_EQ(last_number(today - DAY, today), carried.ts_ms);
  EXPECT_EQ(last_number(today - 90000, today), carried.ts_ms);
  EXPECT_EQ(last_number(today - 89999, today), std::nullopt);
  EXPECT_EQ(last_number(0, today + DAY), mine.ts_ms);
  EXPECT_EQ(read_numeric(0, today + DAY), std::vector{seen(mine)});
  std::string error;
  EXPECT_EQ(reads.find_first_time(ID, &error), mine.ts_ms);
  EXPECT_EQ(reads.find_last_time(ID, &error), mine.ts_ms);
  // a later sample of the day before, which its next rollup will carry
  const nom_sample_t late = nom_sample_t::of_int64(ID, today - 30000, 7);
  store.write({&late, 1});
  EXPECT_EQ(last_number(today - DAY, today), late.ts_ms);
}

TEST_F(reader, a_sample_behind_its_shards_end_ends_the_read) {
  const nom_sample_t good = nom_sample_t::of_int32(ID, FIRST + 1000, 1),
                     stray = nom_sample_t::of_int32(ID, FIRST + DAY + 1000, 2);
  store.write({&good, 1});
  raw_store_c::write_to(store.shard_of(FIRST).get(), {&stray, 1});
  size_t count = 0;
  std::string error;
  EXPECT_FALSE(reads.read_numeric(
      metric, ID, FIRST, FIRST + 2 * DAY,
      [&](std::span<const nom_sample_t> samples) {
        count += samples.size();
        return true;
      },
      &error));
  EXPECT_EQ(error, "a sample lies outside its shard");
  EXPECT_EQ(count, 1U);
}

TEST_F(reader, shards_that_are_offline_are_named_and_passed_over) {
  fill(3);
  store.take_offline(FIRST + DAY);
  std::string offline;
  auto rest = expected(FIRST, FIRST + DAY);
  for (const seen_t &s : expected(FIRST + 2 * DAY, FIRST + 5 * DAY)) rest.push_back(s);
  EXPECT_EQ(read_numeric(FIRST, FIRST + 5 * DAY, &offline), rest);
  EXPECT_NE(offline.find(std::to_string((FIRST + DAY) / 1000)), std::string::npos);
}

}  // namespace
}  // namespace db::raw
