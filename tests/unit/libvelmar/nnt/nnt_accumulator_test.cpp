// The hot form of folding samples gives the same bits as add_data_to_bucket, whatever comes.
#include "libvelmar/nnt/nnt_accumulator.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "libvelmar/nnt/nnt_lanes.h"
#include "nnt_samples.h"

namespace {

// One period by add_data_to_bucket, a cell after the other.
std::vector<nnt_multitype> fold_plainly(uint64_t start_ms, uint64_t end_ms, uint64_t period_ms,
                                        const metric_value_t *prev,
                                        const std::vector<metric_value_t> &samples) {
  const size_t count = (end_ms - start_ms + period_ms - 1) / period_ms;
  std::vector<nnt_multitype> cells(count);
  std::vector<int> drun(count), crun(count);
  metric_value_t *last = nullptr;
  if (prev && !prev->is_null) {
    nnt_multitype before{};
    int d = 0, c = 0;
    add_data_to_bucket(*prev, &last, &before, &d, &c);
  }
  for (const metric_value_t &v : samples) {
    if (v.whence_ms < start_ms || v.whence_ms >= end_ms) continue;
    const size_t i = (v.whence_ms - start_ms) / period_ms;
    add_data_to_bucket(v, &last, &cells[i], &drun[i], &crun[i]);
  }
  free(last);
  return cells;
}

void expect_same(nnt_accumulator_c *accumulator, uint64_t start_ms, uint64_t end_ms,
                 const std::vector<uint64_t> &periods, const metric_value_t *prev,
                 const std::vector<metric_value_t> &samples) {
  for (size_t p = 0; p < periods.size(); p++) {
    const auto expected = fold_plainly(start_ms, end_ms, periods[p], prev, samples);
    const auto cells = accumulator->get_cells(p);
    ASSERT_EQ(cells.size(), expected.size());
    const auto filled = accumulator->get_filled(p);
    for (size_t i = 0; i < cells.size(); i++) {
      ASSERT_TRUE(same_cell(cells[i], expected[i]))
          << "period " << periods[p] << " slot " << i << "\n  is  " << show_cell(cells[i]) << "\n  not "
          << show_cell(expected[i]);
      if (expected[i].count) {
        ASSERT_TRUE(i >= filled.begin && i < filled.end);
      }
    }
    if (filled.begin != filled.end) {
      EXPECT_TRUE(cells[filled.begin].count && cells[filled.end - 1].count);
    }
  }
}

class nnt_accumulator_test : public testing::Test {
 protected:
  static void SetUpTestSuite() { init_private_nan(); }
};

TEST_F(nnt_accumulator_test, same_bits_as_cell_by_cell) {
  const uint64_t start = 1'700'006'400'000, end = start + 3 * 86'400'000ULL - 1'000'000;
  ASSERT_EQ(start % 86'400'000, 0U);
  // one more than fits side by side; periods that do not divide each other
  const std::vector<uint64_t> periods = {60'000, 300'000, 3'600'000, 86'400'000, 90'000};
  nnt_accumulator_c accumulator(start, end, periods);
  for (uint32_t seed = 0; seed < 150; seed++) {
    SCOPED_TRACE(seed);
    samples_c source(seed);
    const auto before = source.make(start - 1000, start, 1);
    const metric_value_t prev = before.empty() ? sample_n(start - 7, 3.5) : before.front();
    const bool has_prev = source.pick(2);
    if (has_prev) accumulator.set_prev(prev);
    std::vector<metric_value_t> samples = source.make(start, end + 100'000, 2000);
    if (!samples.empty() && source.pick(2)) samples.insert(samples.begin(), sample_L(start - 1, 1));
    for (const metric_value_t &v : samples) {
      accumulator.add(v);
      if (source.pick(100) == 0) accumulator.get_cells(source.pick(periods.size()));  // a look changes nothing
    }
    expect_same(&accumulator, start, end, periods, has_prev ? &prev : nullptr, samples);
    if (HasFatalFailure()) return;
    accumulator.reset();
  }
}

TEST_F(nnt_accumulator_test, every_processor_gives_the_same) {
  std::mt19937_64 random(3);
  nnt_lanes_t a{}, b{};
  for (int i = 0; i < 20'000; i++) {
    const auto lane = random() % NNT_LANES;
    if (random() % 10 == 0) {  // a new cell
      for (nnt_lanes_t *l : {&a, &b}) {
        l->mean[lane] = 0;
        l->stddev[lane] = 0;
        l->derivative[lane] = l->counter[lane] = libvelmar_private_nan_float;
        l->count[lane] = 0;
        l->drun[lane] = l->crun[lane] = 0;
      }
    }
    nnt_step_t step{std::ldexp(static_cast<double>(random()) - 0x1p63, static_cast<int>(random() % 80) - 60), 0,
                    0, false};
    if (random() % 5) {
      step.run = static_cast<int32_t>(random() % 5 ? random() % 60'000 : random() % INT32_MAX);
      step.rate = static_cast<float>(step.value / 3);
      step.is_increase = step.run && step.rate >= 0;
    }
    nnt_lanes_fold()(&a, 1, step);
    nnt_lanes_fold_baseline()(&b, 1, step);
    for (size_t k = 0; k < NNT_LANES; k++) {
      ASSERT_EQ(bits_of(a.mean[k]), bits_of(b.mean[k]));
      ASSERT_TRUE(same_float(a.stddev[k], b.stddev[k]));
      ASSERT_TRUE(same_float(a.derivative[k], b.derivative[k]));
      ASSERT_TRUE(same_float(a.counter[k], b.counter[k]));
      ASSERT_EQ(a.drun[k], b.drun[k]);
      ASSERT_EQ(a.crun[k], b.crun[k]);
      ASSERT_EQ(a.count[k], b.count[k]);
    }
  }
}

TEST_F(nnt_accumulator_test, reset_leaves_nothing) {
  const std::vector<uint64_t> periods = {1000};
  nnt_accumulator_c accumulator(0, 10'000, periods);
  accumulator.set_prev(sample_L(0, 1));
  accumulator.add(sample_L(2500, 5));
  accumulator.add(sample_L(7500, 6));
  accumulator.add(sample_L(7000, 7));  // back in time
  EXPECT_EQ(accumulator.get_sample_count(), 2U);
  EXPECT_EQ(accumulator.get_last()->whence_ms, 7500U);
  EXPECT_EQ(accumulator.get_filled(0).begin, 2U);
  EXPECT_EQ(accumulator.get_filled(0).end, 8U);
  accumulator.reset();
  EXPECT_EQ(accumulator.get_last(), nullptr);
  EXPECT_EQ(accumulator.get_filled(0).begin, accumulator.get_filled(0).end);
  for (const nnt_multitype &cell : accumulator.get_cells(0)) EXPECT_TRUE(same_cell(cell, nnt_multitype{}));
  accumulator.add(sample_L(2500, 5));
  EXPECT_FALSE(accumulator.get_cells(0)[2].stddev_present);  // nothing came before
}

}  // namespace
