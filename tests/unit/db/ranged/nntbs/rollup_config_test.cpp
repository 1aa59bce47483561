// Configured periods: parents and lookups.

#include "db/ranged/nntbs/rollup_config.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

struct set_c {
  explicit set_c(std::vector<std::pair<unsigned, uint64_t>> periods) {
    for (const auto &[period, since] : periods) {
      owned.push_back(std::make_unique<rollup_config_t>());
      owned.back()->period = period;
      owned.back()->since = since;
      set.configs.push_back(owned.back().get());
    }
    rollup_config_init(&set);
  }
  std::vector<std::unique_ptr<rollup_config_t>> owned;
  rollup_config_set_t set;
};

TEST(rollup_config, sorted_with_the_nearest_parent_that_divides) {
  const set_c s({{3600, 0}, {60, 0}, {1800, 0}, {300, 0}, {1200, 0}});
  const unsigned periods[] = {60, 300, 1200, 1800, 3600};
  const int parents[] = {-1, 0, 1, 1, 3};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(s.set.configs[i]->period, periods[i]);
    EXPECT_EQ(s.set.configs[i]->my_idx, static_cast<int>(i));
    EXPECT_EQ(s.set.configs[i]->parent_idx, parents[i]) << periods[i];
  }
  EXPECT_EXIT(set_c({{60, 0}, {90, 0}}), testing::ExitedWithCode(2),
              "Rollup with period 90 can't rollup from any smaller period");
}

TEST(rollup_config, lookups) {
  const set_c s({{60, 0}, {300, 0}, {1200, 0}, {3600, 0}});
  const auto period_of = [](const rollup_config_t *c) { return c ? static_cast<int>(c->period) : -1; };
  unsigned collapse = 0;
  EXPECT_EQ(period_of(rollup_config_get_base_rollup(s.set)), 60);

  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 7200, &collapse, 0)), 3600);
  EXPECT_EQ(collapse, 2U);
  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 1500, &collapse, 0)), 300);
  EXPECT_EQ(collapse, 5U);
  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 90, &collapse, 0)), -1);
  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 1500, nullptr, 0)), -1);
  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 1200, nullptr, 0)), 1200);
  EXPECT_EQ(period_of(rollup_config_get_rollup_for_period(s.set, 0, &collapse, 0)), -1);

  EXPECT_EQ(period_of(rollup_config_get_best_rollup_for_period(s.set, 1500, &collapse, 0)), 1200);
  EXPECT_EQ(collapse, 1U);
  EXPECT_EQ(period_of(rollup_config_get_best_rollup_for_period(s.set, 59, &collapse, 0)), -1);
  EXPECT_EQ(period_of(get_best_rollup_for_period_or_base(s.set, 59, &collapse, 0)), 60);
  EXPECT_EQ(collapse, 1U);

  EXPECT_EQ(period_of(rollup_config_get_smallest_granularity_for_period(s.set, 3600, &collapse, 0)), 60);
  EXPECT_EQ(collapse, 60U);
  EXPECT_EQ(rollup_config_get_specific_rollup(s.set, 1), 300);
  EXPECT_EQ(rollup_config_get_specific_rollup(s.set, 4), -1);
  EXPECT_EQ(rollup_config_get_specific_rollup(s.set, -1), -1);
}

TEST(rollup_config, periods_that_begin_later) {
  const set_c s({{60, 5000}, {300, 1000}});
  unsigned collapse = 0;
  EXPECT_EQ(rollup_config_get_smallest_rollup_in_system(s.set, 0), 60);
  EXPECT_EQ(rollup_config_get_smallest_rollup_in_system(s.set, 5000), 60);
  EXPECT_EQ(rollup_config_get_smallest_rollup_in_system(s.set, 4999), 300);
  EXPECT_EQ(rollup_config_get_smallest_rollup_in_system(s.set, 999), -1);
  EXPECT_EQ(rollup_config_get_smallest_granularity_for_period(s.set, 300, &collapse, 2000)->period, 300U);
  EXPECT_EQ(rollup_config_get_best_rollup_for_period(s.set, 100, &collapse, 2000), nullptr);
  EXPECT_EQ(rollup_config_get_base_rollup(rollup_config_set_t{}), nullptr);
}

}  // namespace
