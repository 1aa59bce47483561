// A pass over a shard of histograms: gauges merge, cumulative ones are differenced, also across shards.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "db/raw/rollup/cumulative_forwarding.h"
#include "rollup_fixture.h"
#include "unit/db/raw/nom/nom_support.h"

namespace db::raw {
namespace {

constexpr uint64_t START = NOW - DAY;

class histogram_rollup : public testing::Test {
 protected:
  histogram_rollup() {
    for (uint64_t id = 1; id <= 20; id++) lookup.add(id, METRIC_TYPE_HISTOGRAM);
    open();
  }
  ~histogram_rollup() override { rollup_hooks_clear(); }
  void open() {
    store.reset();
    store = std::make_unique<store_c>(dir.path(), &lookup,
                                      std::vector<rollup_target_c *>{&minutes, &nineties, &fives, &days},
                                      store_options_t{HISTOGRAM});
  }
  void gauge(uint64_t id, uint64_t ts_ms, std::initializer_list<double> values) {
    store->write_histogram(lookup.metrics[id], ts_ms, values, false);
  }
  void cumulative(uint64_t id, uint64_t ts_ms, std::initializer_list<double> values) {
    store->write_histogram(lookup.metrics[id], ts_ms, values, true);
  }
  static std::string text(std::initializer_list<double> values) {
    const hist_ptr histogram(hist_alloc());
    for (const double value : values) hist_insert(histogram.get(), value, 1);
    return fake_target_c::text_of(histogram.get());
  }
  bool has_forwarding(uint64_t start_s, uint64_t id) {
    return std::filesystem::exists(
        cumulative_forwarding_path(dir.path(), start_s, velmar_db_raw_nom::family_of(id)));
  }

  const temp_dir_c dir;
  fake_lookup_c lookup;
  fake_target_c minutes{60}, nineties{90}, fives{300}, days{86400};
  std::unique_ptr<store_c> store;
};

TEST_F(histogram_rollup, gauges_merge_in_every_period) {
  std::mt19937 random(3);
  std::map<unsigned, std::map<slot_t, hist_ptr>> expected;
  for (uint64_t id = 1; id <= 20; id++)
    for (uint64_t ts_ms = START * 1000 + random() % 100000; ts_ms < NOW * 1000; ts_ms += random() % 2000000) {
      const double value = random() % 1000;
      gauge(id, ts_ms, {value, 1.0});
      for (const unsigned period_s : {60, 90, 300, 86400}) {
        hist_ptr &slot = expected[period_s][{id, ts_ms - ts_ms % (period_s * 1000)}];
        if (!slot) slot.reset(hist_alloc());
        hist_insert(slot.get(), value, 1);
        hist_insert(slot.get(), 1.0, 1);
      }
    }
  store->roll_up(START);
  for (const fake_target_c *target : {&minutes, &nineties, &fives, &days}) {
    const auto &slots = expected[target->get_period_s()];
    ASSERT_EQ(target->histograms.size(), slots.size());
    for (const auto &[slot, histogram] : slots)
      ASSERT_EQ(target->histograms.at(slot), fake_target_c::text_of(histogram.get()))
          << target->get_period_s() << ": " << slot.id << " at " << slot.ts_ms;
  }
}

TEST_F(histogram_rollup, cumulative_ones_are_differenced) {
  const uint64_t at = START * 1000;
  cumulative(1, at, {1, 2});
  cumulative(1, at + 60000, {1, 2, 2, 3});
  cumulative(1, at + 120000, {5});              // counted anew
  cumulative(1, at + 120000 + 600000, {5, 6});  // as far as the distance goes
  cumulative(1, at + 120000 + 1200001, {5, 6, 7});
  cumulative(1, at + 120000 + 1260001, {5, 6, 7, 8});
  store->roll_up(START);
  std::vector<std::string> got;
  for (const auto &[slot, histogram] : minutes.histograms) got.push_back(histogram);
  EXPECT_EQ(got, (std::vector<std::string>{"", text({2, 3}), text({5}), text({6}), "", text({8})}));
  EXPECT_EQ(days.histograms.at({1, at}), text({2, 3, 5, 6, 8}));
}

TEST_F(histogram_rollup, the_first_of_a_shard_is_differenced_against_the_last_of_the_one_before) {
  cumulative(1, NOW * 1000 - 1000, {1});
  cumulative(2, NOW * 1000 - 1000, {1});
  cumulative(1, NOW * 1000 + 5000, {1, 2});
  cumulative(2, NOW * 1000 + 700000, {1, 2});  // too far off
  cumulative(3, NOW * 1000, {1});
  store->roll_up(START);
  EXPECT_TRUE(has_forwarding(START, 1));
  for (int pass = 0; pass < 2; pass++) {  // a repeat needs it again
    store->shard(NOW)->mark_dirty();
    store->roll_up(NOW);
    EXPECT_EQ(minutes.histograms.at({1, NOW * 1000}), text({2})) << pass;
    EXPECT_EQ(minutes.histograms.at({2, (NOW + 660) * 1000}), "");
    EXPECT_EQ(minutes.histograms.at({3, NOW * 1000}), "");
  }
}

TEST_F(histogram_rollup, a_change_of_the_last_one_repeats_the_next_shard) {
  cumulative(1, NOW * 1000 - 1000, {1});
  cumulative(1, NOW * 1000 + 5000, {1, 2});
  store->roll_up(START);
  store->roll_up(NOW);
  const auto &progress = store->shard(NOW)->get_rollup_progress();
  ASSERT_TRUE(progress.is_finished());
  store->shard(START)->mark_dirty();
  store->roll_up(START);
  EXPECT_TRUE(progress.is_finished());
  cumulative(1, NOW * 1000 - 500, {1, 2});
  store->roll_up(START);
  EXPECT_FALSE(progress.is_finished());
}

TEST_F(histogram_rollup, what_is_kept_for_a_shard_goes_with_it) {
  cumulative(1, NOW * 1000 - 1000, {1});
  cumulative(1, NOW * 1000 + 5000, {1, 2});
  store->roll_up(START);
  store->roll_up(NOW);
  ASSERT_TRUE(store->factory->delete_shard(store->shard(START)));
  open();
  EXPECT_TRUE(has_forwarding(START, 1));  // the shard it is for is there
  ASSERT_TRUE(store->factory->delete_shard(store->shard(NOW)));
  EXPECT_FALSE(has_forwarding(START, 1));
  EXPECT_TRUE(has_forwarding(NOW, 1));
  open();
  EXPECT_FALSE(has_forwarding(NOW, 1));
}

TEST_F(histogram_rollup, one_that_cannot_be_read_is_passed_over) {
  const log_capture_c log("error");
  gauge(1, START * 1000, {1});
  store->db(START).write_record(
      1, START + HOUR,
      nom_support::hist_record(6, {{0, "no histogram"}, {60000, std::string("\1\1\x0a\0\5", 5)}}), HISTOGRAM);
  store->roll_up(START);
  EXPECT_EQ(minutes.histograms.size(), 2U);
  EXPECT_EQ(minutes.histograms.at({1, (START + HOUR + 60) * 1000}), text({1, 1, 1, 1, 1}));
  EXPECT_TRUE(log.contains("failed to deserialize sharded histogram"));
  EXPECT_TRUE(store->shard(START)->get_rollup_progress().is_finished());
}

}  // namespace
}  // namespace db::raw
