#pragma once
// Numeric samples for rollups, and their cells worked out by the plain rule.

#include <random>

#include "rollup_fixture.h"

namespace db::raw {

inline metric_value_t metric_value_of(const nom_sample_t &sample) {
  metric_value_t value = {sample.ts_ms, static_cast<velmar_metric_type_t>(sample.type), sample.is_null, {}};
  memcpy(&value.storage, &sample.bits, sizeof sample.bits);
  return value;
}

// The cells by the plain rule, one period at a time. The samples are in order of time.
inline std::map<slot_t, nnt_multitype> expected_cells(const std::vector<nom_sample_t> &samples,
                                                      unsigned period_s, uint64_t from_ms) {
  struct bucket_t {
    nnt_multitype cell = {};
    int drun = 0, crun = 0;
  };
  std::map<slot_t, bucket_t> buckets;
  std::map<uint64_t, metric_value_t *> last;
  for (const nom_sample_t &sample : samples) {
    bucket_t before,
        &bucket = sample.ts_ms < from_ms
                      ? before
                      : buckets[{sample.surrogate_id, sample.ts_ms - sample.ts_ms % (period_s * 1000)}];
    add_data_to_bucket(metric_value_of(sample), &last[sample.surrogate_id], &bucket.cell, &bucket.drun,
                       &bucket.crun);
  }
  for (const auto &[id, value] : last) free(value);
  std::map<slot_t, nnt_multitype> cells;
  for (const auto &[slot, bucket] : buckets)
    if (bucket.cell.count) cells[slot] = bucket.cell;
  return cells;
}

inline void expect_cells(const fake_target_c &target, const std::map<slot_t, nnt_multitype> &expected) {
  ASSERT_EQ(target.numbers.size(), expected.size()) << target.get_period_s();
  for (const auto &[slot, cell] : expected) {
    const auto got = target.numbers.find(slot);
    ASSERT_NE(got, target.numbers.end()) << slot.id << " at " << slot.ts_ms;
    ASSERT_TRUE(same_cell(got->second, cell)) << slot.id << " at " << slot.ts_ms;
  }
}

// Some metrics of every type with gaps, falling counters and nulls.
inline std::vector<nom_sample_t> make_samples(uint64_t from_s, uint64_t to_s, unsigned seed = 1) {
  std::mt19937_64 random(seed);
  std::vector<nom_sample_t> samples;
  for (uint64_t id = 1; id <= 40; id++) {
    const uint64_t step_ms = 1000 * (20 + random() % 400);
    uint64_t count = random() % 1000;
    for (uint64_t ts = from_s * 1000 + random() % step_ms; ts < to_s * 1000;
         ts += 1 + random() % (2 * step_ms)) {
      if (random() % 50 == 0) ts += 5 * HOUR * 1000;
      if (ts >= to_s * 1000) break;
      count = random() % 30 == 0 ? 0 : count + random() % 1000;
      switch (id % 5) {
        case 0:
          samples.push_back(nom_sample_t::of_int32(id, ts, static_cast<int32_t>(random())));
          break;
        case 1:
          samples.push_back(nom_sample_t::of_uint32(id, ts, static_cast<uint32_t>(count)));
          break;
        case 2:
          samples.push_back(nom_sample_t::of_int64(id, ts, static_cast<int64_t>(random())));
          break;
        case 3:
          samples.push_back(nom_sample_t::of_uint64(id, ts, count));
          break;
        default:
          samples.push_back(random() % 20 == 0
                                ? nom_sample_t::of_null(id, ts, 'n')
                                : nom_sample_t::of_double(id, ts, 1e-3 * static_cast<double>(count)));
      }
    }
  }
  return samples;
}

}  // namespace db::raw
