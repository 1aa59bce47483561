// Two readers behind one, against a slot by slot computation of what a client sees.

#include "db/ranged/dispatch_reader.h"

#include <random>

#include "ranged_support.h"

namespace velmar_db_ranged_dispatch {
namespace {

using namespace ranged_support;

constexpr uint64_t SPAN = 60000, START = 1700000 * SPAN;

class dispatch : public testing::Test {
 protected:
  ranged_c::key_c range(uint64_t cells) const { return key_of(metric, START, START + cells * SPAN, SPAN); }
  static uint64_t at(uint64_t slot) { return START + slot * SPAN; }
  void put(fake_reader_c *reader, std::initializer_list<int> slots, double value) {
    for (const int slot : slots) reader->values[at(static_cast<uint64_t>(slot))] = value;
  }
  // What the client sees of each slot; runs come in order of time and never overlap.
  static std::map<uint64_t, double> flatten(const std::vector<run_t> &runs) {
    std::map<uint64_t, double> out;
    uint64_t behind = 0;
    for (const run_t &run : runs) {
      EXPECT_GE(run.beg, behind);
      for (size_t i = 0; i < run.cells.size(); i++)
        if (run.cells[i].type >= NNT_TYPE_INT32) out[run.beg + i * run.span] = run.cells[i].value.v_double;
      behind = run.beg + run.cells.size() * run.span;
    }
    return out;
  }

  const metric_locator_sp metric = make_metric("dispatched");
  fake_reader_c primary{SPAN}, backup{SPAN};
};

TEST_F(dispatch, agrees_with_a_model_of_slots) {
  std::mt19937 random(11);
  for (int round = 0; round < 400; round++) {
    const uint64_t cells = 1 + random() % 40;
    const unsigned in_primary = random() % 5, in_backup = random() % 5;
    primary.values.clear();
    backup.values.clear();
    primary.null_cells = random() % 2;
    backup.run_cells = 1 + random() % 6;
    backup.code = random() % 8 ? code_e::NONE : code_e::NO_SUCH_ROLLUP;
    primary.code = random() % 8 ? code_e::NONE : code_e::NO_SUCH_ROLLUP;
    if (random() % 4) primary.values[0] = backup.values[0] = 0;  // a known metric, if without data in the range
    for (uint64_t i = 0; i < cells; i++) {
      if (random() % 4 < in_primary) primary.values[at(i)] = 1000.0 + static_cast<double>(i);
      if (random() % 4 < in_backup) backup.values[at(i)] = -1.0 - static_cast<double>(i);
    }
    for (const bool all_gaps : {false, true}) {
      uint64_t behind = 0;  // without all_gaps the primary alone decides up to its last value
      if (!all_gaps && primary.code == code_e::NONE && !primary.values.empty() &&
          primary.values.rbegin()->first >= START)
        behind = primary.values.rbegin()->first + SPAN;
      std::map<uint64_t, double> model;
      for (uint64_t i = 0; i < cells; i++) {
        if (primary.code == code_e::NONE && primary.values.count(at(i)))
          model[at(i)] = primary.values[at(i)];
        else if (at(i) >= behind && backup.code == code_e::NONE && backup.values.count(at(i)))
          model[at(i)] = backup.values[at(i)];
      }
      const ctx_c reader(&primary, &backup, all_gaps);
      ASSERT_EQ(flatten(read_all(reader, range(cells))), model) << "round " << round << " gaps " << all_gaps;
    }
  }
}

TEST_F(dispatch, a_covered_range_is_one_run_and_the_backup_is_not_asked) {
  put(&primary, {0, 1, 2, 3, 4, 5}, 7);
  for (const bool all_gaps : {false, true}) {
    const auto runs = read_all(ctx_c(&primary, &backup, all_gaps), range(6));
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].cells.size(), 6U);
  }
  EXPECT_TRUE(backup.keys.empty());
}

TEST_F(dispatch, the_backup_is_asked_for_the_gaps_alone) {
  put(&primary, {2, 3, 6}, 7);
  put(&backup, {0, 1, 2, 3, 4, 5, 6, 7, 8}, 9);
  const auto runs = read_all(ctx_c(&primary, &backup, false), range(9));
  ASSERT_EQ(runs.size(), 2U);
  EXPECT_EQ(runs[0].beg, at(0));
  EXPECT_EQ(runs[0].cells.size(), 7U);
  EXPECT_EQ(runs[0].cells[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(runs[1].beg, at(7));
  ASSERT_EQ(backup.keys.size(), 1U);
  EXPECT_EQ(backup.keys[0].m_start, at(7));
  EXPECT_EQ(backup.keys[0].m_end, at(9));

  backup.keys.clear();
  const auto pieces = read_all(ctx_c(&primary, &backup, true), range(9));
  ASSERT_EQ(backup.keys.size(), 3U);
  const std::vector<std::pair<uint64_t, uint64_t>> gaps = {{0, 2}, {4, 6}, {7, 9}};
  for (size_t i = 0; i < gaps.size(); i++) {
    EXPECT_EQ(backup.keys[i].m_start, at(gaps[i].first));
    EXPECT_EQ(backup.keys[i].m_end, at(gaps[i].second));
    EXPECT_EQ(backup.keys[i].m_rollup_span, SPAN);
  }
  EXPECT_EQ(pieces.size(), 5U);
}

TEST_F(dispatch, many_gaps_are_read_together) {
  std::map<uint64_t, double> model;
  for (uint64_t i = 0; i < 1000; i++) {
    model[at(i)] = static_cast<double>(i);
    (i % 3 ? primary : backup).values[at(i)] = static_cast<double>(i);
  }
  EXPECT_EQ(flatten(read_all(ctx_c(&primary, &backup, true), range(1000))), model);
  EXPECT_LT(backup.keys.size(), 10U);
  backup.keys.clear();
  backup.run_cells = 1;  // no run holds them all
  EXPECT_EQ(flatten(read_all(ctx_c(&primary, &backup, true), range(1000))), model);
  EXPECT_GT(backup.keys.size(), 300U);
}

TEST_F(dispatch, a_coarser_run_reaches_the_client_with_its_own_span) {
  fake_reader_c coarse{5 * SPAN};
  coarse.values[at(3)] = 42;
  put(&primary, {0, 1, 2, 10}, 7);
  const auto runs = read_all(ctx_c(&primary, &coarse, true), range(11));
  ASSERT_EQ(runs.size(), 3U);
  EXPECT_EQ(runs[1].beg, at(3));
  EXPECT_EQ(runs[1].span, 5 * SPAN);
  ASSERT_EQ(runs[1].cells.size(), 1U);  // seven slots hold one whole cell of five
  EXPECT_EQ(runs[1].cells[0].value.v_double, 42);
  EXPECT_EQ(runs[2].beg, at(10));
}

TEST_F(dispatch, an_error_ends_the_read_on_either_side) {
  code_e code;
  primary.code = code_e::INTERNAL;
  put(&backup, {0, 1}, 9);
  EXPECT_TRUE(read_all(ctx_c(&primary, &backup, false), range(4), &code).empty());
  EXPECT_EQ(code, code_e::INTERNAL);
  EXPECT_TRUE(backup.keys.empty());

  primary.code = code_e::NONE;
  put(&primary, {0, 2}, 7);
  backup.code = code_e::NO_MEM;
  EXPECT_EQ(read_all(ctx_c(&primary, &backup, true), range(4), &code).size(), 1U);
  EXPECT_EQ(code, code_e::NO_MEM);

  backup.code = code_e::NONE;
  backup.code_after = code_e::INTERNAL;
  EXPECT_EQ(read_all(ctx_c(&primary, &backup, true), range(4), &code).size(), 2U);
  EXPECT_EQ(code, code_e::INTERNAL);
}

TEST_F(dispatch, nothing_anywhere_is_no_error) {
  EXPECT_TRUE(read_all(ctx_c(&primary, &backup, true), range(4)).empty());
  primary.code = backup.code = code_e::NO_SUCH_ROLLUP;
  EXPECT_TRUE(read_all(ctx_c(&primary, &backup, false), range(4)).empty());
}

TEST_F(dispatch, dispatches_stack_and_many_gaps_need_no_stack) {
  fake_reader_c last{SPAN};
  constexpr uint64_t CELLS = 200001;
  std::map<uint64_t, double> model;
  for (uint64_t i = 0; i < CELLS; i++) {
    (i % 2 ? primary : i % 4 ? backup : last).values[at(i)] = static_cast<double>(i);
    model[at(i)] = static_cast<double>(i);
  }
  const ctx_c inner(&backup, &last, true), outer(&primary, &inner, true);
  EXPECT_EQ(flatten(read_all(outer, range(CELLS))), model);
  backup.values = {{0, 0.0}};
  last.values.clear();  // every gap stays one: no run comes between
  EXPECT_EQ(flatten(read_all(outer, range(CELLS))).size(), CELLS / 2);
}

TEST_F(dispatch, the_whole_range_of_a_metric_is_that_of_both) {
  const ctx_c reader(&primary, &backup, false);
  EXPECT_EQ(reader.get_epoch(range(1)), std::nullopt);
  put(&backup, {3, 8}, 1);
  EXPECT_EQ(reader.get_epoch(range(1)), at(3));
  put(&primary, {1, 5}, 1);
  EXPECT_EQ(reader.get_epoch(range(1)), at(1));
  EXPECT_EQ(reader.get_apocalypse(range(1)), at(8));
}

}  // namespace
}  // namespace velmar_db_ranged_dispatch
