// Cells from samples, against folding every sample of the metric by hand.

#include "db/ranged/from_raw_reader.h"

#include <cstring>
#include <random>

#include "ranged_support.h"
#include "support/raw_store.h"

namespace velmar_db_ranged_fromRaw {
namespace {

using namespace ranged_support;
using db::raw::nom_sample_t;

constexpr uint64_t ID = 9, DAY = raw_store_c::DAY_MS, TODAY = raw_store_c::NOW_S * 1000 - DAY;

metric_value_t value_of(const nom_sample_t &sample) {
  metric_value_t value = {};
  value.whence_ms = sample.ts_ms;
  value.type = static_cast<velmar_metric_type_t>(sample.type);
  value.is_null = sample.is_null;
  memcpy(&value.storage, &sample.bits, sizeof sample.bits);
  return value;
}

class from_raw : public testing::Test {
 protected:
  void fill(unsigned seed, uint64_t step_ms) {
    std::mt19937_64 random(seed);
    uint64_t counter = 1;
    for (uint64_t ts = TODAY - DAY; ts < TODAY + DAY; ts += 1 + random() % (2 * step_ms)) {
      counter += random() % 1000;
      if (random() % 50 == 0) counter = 0;
      const char type = "iIlLn"[ts / 3600000 % 5];
      nom_sample_t sample = {ID, ts, counter, 0, type, random() % 9 == 0};
      if (type == 'i') sample = nom_sample_t::of_int32(ID, ts, static_cast<int32_t>(counter) - 5000);
      if (type == 'l') sample = nom_sample_t::of_int64(ID, ts, -static_cast<int64_t>(counter));
      if (type == 'n') sample = nom_sample_t::of_double(ID, ts, static_cast<double>(counter) / 7);
      if (random() % 9 == 0) sample = nom_sample_t::of_null(ID, ts, type);
      samples.push_back(sample);
    }
    store.write(samples);
  }
  std::vector<nnt_multitype> model(uint64_t start_ms, uint64_t end_ms, uint64_t span_ms) const {
    const size_t count = (end_ms - start_ms) / span_ms;
    std::vector<nnt_multitype> cells(count);
    std::vector<int> drun(count), crun(count);
    metric_value_t *last = nullptr;
    for (const nom_sample_t &sample : samples) {
      if (sample.is_null || sample.ts_ms + LOOK_BACK_MS < start_ms || sample.ts_ms >= end_ms) continue;
      if (sample.ts_ms < start_ms) {
        nnt_multitype unused = {};
        int unused_drun = 0, unused_crun = 0;
        free(last);
        last = nullptr;
        add_data_to_bucket(value_of(sample), &last, &unused, &unused_drun, &unused_crun);
        continue;
      }
      const size_t slot = (sample.ts_ms - start_ms) / span_ms;
      add_data_to_bucket(value_of(sample), &last, &cells[slot], &drun[slot], &crun[slot]);
    }
    free(last);
    return cells;
  }
  void expect_model(uint64_t start_ms, uint64_t end_ms, uint64_t span_ms) {
    const auto runs = read_all(reader, key_of(metric, start_ms, end_ms, span_ms));
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].beg, start_ms);
    EXPECT_EQ(runs[0].span, span_ms);
    const auto expected = model(start_ms, end_ms, span_ms);
    ASSERT_EQ(runs[0].cells.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
      ASSERT_TRUE(same(runs[0].cells[i], expected[i])) << "cell " << i << " of " << span_ms << " ms";
  }

  raw_store_c store;
  const metric_locator_sp metric = make_stored_metric(ID, "from_samples");
  const ctx_c reader{nullptr, store.shards()};
  std::vector<nom_sample_t> samples;
};

TEST_F(from_raw, cells_are_those_of_folding_each_sample) {
  init_private_nan();
  fill(1, 20000);
  for (const uint64_t span : {500, 60000, 300000, 3600000, 86400000}) {
    const uint64_t length = std::min<uint64_t>(2 * DAY, span * 4000);
    expect_model(TODAY, TODAY + std::min(DAY, length), span);
    expect_model(TODAY - DAY, TODAY - DAY + length, span);  // nothing lies before
  }
  std::mt19937_64 random(5);
  for (int i = 0; i < 20; i++) {
    const uint64_t start = TODAY - DAY + random() % 2000 * 60000;
    expect_model(start, start + (1 + random() % 100) * 60000, 60000);
  }
}

TEST_F(from_raw, the_rate_of_the_first_sample_needs_one_of_the_day_before) {
  init_private_nan();
  const uint64_t start = TODAY + 3600000;
  samples = {nom_sample_t::of_int32(ID, start + 60000 - LOOK_BACK_MS - 1, 0),
             nom_sample_t::of_null(ID, start - 5000, 'i'), nom_sample_t::of_int32(ID, start + 1000, 100),
             nom_sample_t::of_int32(ID, start + 61000, 160)};
  store.write(samples);
  auto runs = read_all(reader, key_of(metric, start + 60000, start + 120000, 60000));
  EXPECT_EQ(runs.at(0).cells.at(0).derivative, 1.0F);
  runs = read_all(reader, key_of(metric, start, start + 60000, 60000));
  EXPECT_FLOAT_EQ(runs.at(0).cells.at(0).derivative, 100000.0F / (LOOK_BACK_MS - 60000 + 1001));
  expect_model(start, start + 120000, 60000);
  // older than a day
  const nom_sample_t late = nom_sample_t::of_int32(ID, start + 7200000 + LOOK_BACK_MS, 7);
  store.write({&late, 1});
  const uint64_t cell = late.ts_ms - late.ts_ms % 60000;
  runs = read_all(reader, key_of(metric, cell, cell + 60000, 60000));
  EXPECT_EQ(runs.at(0).cells.at(0).count, 1U);
  EXPECT_EQ(runs.at(0).cells.at(0).derivative, 0.0F);
}

TEST_F(from_raw, a_known_metric_gives_empty_cells_an_unknown_one_nothing) {
  fill(2, 600000);
  const auto runs = read_all(reader, key_of(metric, TODAY - 5 * DAY, TODAY - 4 * DAY, 3600000));
  ASSERT_EQ(runs.size(), 1U);
  ASSERT_EQ(runs[0].cells.size(), 24U);
  for (const nnt_multitype &cell : runs[0].cells) EXPECT_EQ(cell.type, NNT_TYPE_ABSENT);
  EXPECT_TRUE(read_all(reader, key_of(make_metric("unknown"), TODAY, TODAY + DAY, 3600000)).empty());
  EXPECT_TRUE(read_all(reader, key_of(metric, TODAY, TODAY, 3600000)).empty());
}

TEST_F(from_raw, ranges_that_are_no_whole_cells_are_refused) {
  code_e code;
  read_all(reader, key_of(metric, TODAY + 1, TODAY + 60000, 60000), &code);
  EXPECT_EQ(code, code_e::UNALIGNED_OFFSET);
  read_all(reader, key_of(metric, TODAY, TODAY + 60001, 60000), &code);
  EXPECT_EQ(code, code_e::UNALIGNED_OFFSET);
  read_all(reader, key_of(metric, TODAY, TODAY + 60000, 0), &code);
  EXPECT_EQ(code, code_e::UNALIGNED_OFFSET);
  read_all(reader, key_of(metric, TODAY, TODAY - 60000, 60000), &code);
  EXPECT_EQ(code, code_e::INTERNAL);
  read_all(reader, key_of(metric, 0, UINT64_MAX, 1), &code);
  EXPECT_EQ(code, code_e::NO_MEM);
}

TEST_F(from_raw, first_and_last_time_are_those_of_cells) {
  const auto key = key_of(metric, 0, 60000, 60000);
  EXPECT_EQ(reader.get_epoch(key), std::nullopt);
  EXPECT_EQ(reader.get_apocalypse(key), std::nullopt);
  samples = {nom_sample_t::of_int32(ID, TODAY - DAY + 61001, 1),
             nom_sample_t::of_null(ID, TODAY + 119999, 'i')};
  store.write(samples);
  EXPECT_EQ(reader.get_epoch(key), TODAY - DAY + 60000);
  EXPECT_EQ(reader.get_apocalypse(key), TODAY + 60000);
}

}  // namespace
}  // namespace velmar_db_ranged_fromRaw
