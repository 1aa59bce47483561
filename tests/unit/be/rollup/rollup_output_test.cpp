// What a read gives, as JSON and as an image.
#include <gtest/gtest.h>

#include "be/rollup/rollup_json.h"
#include "be/rollup/to_nnt.h"
#include "fake_reader.h"

namespace {

using namespace velmar_be_rollup;
using db::kv::code_e;

db::kv::ranged_c::key_c key_of(uint64_t start_ms, uint64_t end_ms, uint64_t span_ms) {
  db::kv::ranged_c::key_c key;
  key.m_metric_locator = locator_of("m");
  key.m_start = start_ms;
  key.m_end = end_ms;
  key.m_rollup_span = span_ms;
  key.m_is_valid = true;
  return key;
}

uint64_t value_at(const nnt_handle_readfast *view, uint64_t t) {
  nnt_multitype cell;
  EXPECT_EQ(nnt_get_fast(view, t, &cell), 1);
  return cell.type == NNT_TYPE_ABSENT ? 0 : cell.value.v_uint64;
}

TEST(rollup_json, items_of_several_runs) {
  const std::vector<nnt_multitype> cells = {cell_of(5), {}, cell_of(7)};
  std::string payload = "[";
  bool has_items = false;
  build_json_output({60'000, 60'000, 3, cells.data()}, NNT_AVERAGE, &has_items, &payload);
  EXPECT_EQ(payload, "[[60,5],[120,null],[180,7]");
  build_json_output({240'500, 1'504, 3, cells.data()}, NNT_COUNT, &has_items, &payload);
  EXPECT_EQ(payload, "[[60,5],[120,null],[180,7],[240.500,1],[242.004,null],[243.508,1]");
}

TEST(to_nnt, runs_fill_their_slots) {
  fake_reader_c reader;
  reader.runs = {{60'000, 60'000, {cell_of(1), {}, cell_of(3)}}, {300'000, 60'000, {cell_of(5)}}};
  const auto image = to_nnt_factory_c::from_ranged_reader(key_of(60'000, 600'000, 60'000), reader);
  ASSERT_EQ(image.error, to_nnt_factory_c::SUCCESS);
  EXPECT_TRUE(image.has_run);
  EXPECT_EQ(nnt_get_fast_epoch(image.view.get()), 60U);
  EXPECT_EQ(nnt_get_fast_apocalypse(image.view.get()), 360U);
  const uint64_t expected[] = {1, 0, 3, 0, 5};
  for (uint64_t i = 0; i < 5; i++) EXPECT_EQ(value_at(image.view.get(), 60 + 60 * i), expected[i]);
}

TEST(to_nnt, a_coarser_run_fills_several_slots_a_cell) {
  fake_reader_c reader;
  // it begins before and ends behind what is asked for
  reader.runs = {{0, 180'000, {cell_of(1), cell_of(2), {}, cell_of(4)}}};
  const auto image = to_nnt_factory_c::from_ranged_reader(key_of(60'000, 600'000, 60'000), reader);
  ASSERT_TRUE(image.view);
  const uint64_t expected[] = {1, 1, 2, 2, 2, 0, 0, 0, 4};
  for (uint64_t i = 0; i < 9; i++) EXPECT_EQ(value_at(image.view.get(), 60 + 60 * i), expected[i]) << i;
  EXPECT_EQ(nnt_get_fast_apocalypse(image.view.get()), 600U);
}

TEST(to_nnt, what_makes_no_image) {
  fake_reader_c reader;
  EXPECT_EQ(to_nnt_factory_c::from_ranged_reader(key_of(0, 1000, 500), reader).error,
            to_nnt_factory_c::ERROR_ROLLUP_SPAN_UNITS);
  EXPECT_EQ(to_nnt_factory_c::from_ranged_reader(key_of(0, 1ULL << 53, 1ULL << 52), reader).error,
            to_nnt_factory_c::ERROR_ROLLUP_SPAN_UNITS);
  EXPECT_EQ(
      to_nnt_factory_c::from_ranged_reader(key_of(5'000'000'000'000, 5'000'000'060'000, 20'000), reader).error,
      to_nnt_factory_c::ERROR_NNT_OPEN);
  reader.runs = {{0, 90'000, {cell_of(1)}}};
  EXPECT_EQ(to_nnt_factory_c::from_ranged_reader(key_of(0, 600'000, 60'000), reader).error,
            to_nnt_factory_c::ERROR_ERRNO);
  reader.runs = {{0, 60'000, {cell_of(1)}}};
  reader.error = code_e::NO_SUCH_ROLLUP;
  const auto failed = to_nnt_factory_c::from_ranged_reader(key_of(0, 600'000, 60'000), reader);
  EXPECT_EQ(failed.read_error, code_e::NO_SUCH_ROLLUP);
  EXPECT_FALSE(failed.view);
}

TEST(to_nnt, nothing_and_one_cell_of_nothing) {
  fake_reader_c reader;
  auto image = to_nnt_factory_c::from_ranged_reader(key_of(60'000, 120'000, 60'000), reader);
  ASSERT_TRUE(image.view);
  EXPECT_FALSE(image.has_run);
  EXPECT_EQ(image.view->len, 16U);
  reader.runs = {{60'000, 60'000, {{}}}};
  image = to_nnt_factory_c::from_ranged_reader(key_of(60'000, 120'000, 60'000), reader);
  ASSERT_TRUE(image.view);
  EXPECT_TRUE(image.has_run);
  EXPECT_EQ(image.view->len, 16U);
}

}  // namespace
