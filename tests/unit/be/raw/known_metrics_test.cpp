#include "be/raw/known_metrics.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "be/raw/raw_put_budget.h"
#include "platform/krel/base/krel_memory.h"

namespace be::raw {
namespace {

const uint8_t UUID[16] = {1, 2, 3}, OTHER_UUID[16] = {9};

metric_locator_sp make(const std::string &name, int32_t account = 1) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name.data(), name.size());
  auto locator =
      metric_locator_adopt(velmar_metric_locator_create_full(account, METRIC_TYPE_NUMERIC, UUID, &reader));
  velmar_metric_locator_set_canonical(locator.get());
  return locator;
}

TEST(known_metrics, finds_by_uuid_account_and_name_as_sent) {
  const krel_memory_section_c section;
  known_metrics_c known;
  const auto metric = make("cpu|ST[a:b,c:d]");
  known.insert({UUID, 1, "cpu|ST[a:b,c:d]"}, metric.get());
  known.insert({UUID, 1, "cpu|ST[c:d,a:b]"}, metric.get());  // the same metric, its tags in another order
  ASSERT_TRUE(known.find({UUID, 1, "cpu|ST[a:b,c:d]"}));
  EXPECT_EQ(known.find({UUID, 1, "cpu|ST[a:b,c:d]"})->locator, metric.get());
  EXPECT_EQ(known.find({UUID, 1, "cpu|ST[c:d,a:b]"})->locator, metric.get());
  EXPECT_FALSE(known.find({UUID, 1, "cpu"}));
  EXPECT_FALSE(known.find({UUID, 2, "cpu|ST[a:b,c:d]"}));
  EXPECT_FALSE(known.find({OTHER_UUID, 1, "cpu|ST[a:b,c:d]"}));
}

TEST(known_metrics, an_erased_metric_is_not_known_until_it_is_met_again) {
  const krel_memory_section_c section;
  known_metrics_c known;
  const auto metric = make("a");
  known.insert({UUID, 1, "a"}, metric.get());
  metric->canonical_copy = false;
  EXPECT_FALSE(known.find({UUID, 1, "a"}));
  const auto again = make("a");
  known.insert({UUID, 1, "a"}, again.get());
  ASSERT_TRUE(known.find({UUID, 1, "a"}));
  EXPECT_EQ(known.find({UUID, 1, "a"})->locator, again.get());
  EXPECT_EQ(known.size(), 1U);
}

TEST(known_metrics, grows_while_it_is_read) {
  known_metrics_c known;
  constexpr int METRICS = 20000;
  std::vector<metric_locator_sp> metrics;
  for (int i = 0; i < METRICS; i++) metrics.push_back(make("metric" + std::to_string(i)));
  std::atomic<int> inserted{0}, misses{0};
  std::thread reader([&] {
    krel_memory_init_thread();
    while (inserted < METRICS) {
      const krel_memory_section_c section;
      const int upto = inserted.load();
      for (int i = std::max(0, upto - 50); i < upto; i++)
        if (!known.find({UUID, 1, "metric" + std::to_string(i)})) misses++;
    }
    krel_memory_fini_thread();
  });
  for (int i = 0; i < METRICS; i++) {
    known.insert({UUID, 1, "metric" + std::to_string(i)}, metrics[static_cast<size_t>(i)].get());
    inserted = i + 1;
  }
  reader.join();
  EXPECT_EQ(misses, 0);
  EXPECT_EQ(known.size(), static_cast<size_t>(METRICS));
}

TEST(raw_put_budget, serves_waiters_in_order_and_lets_nobody_past) {
  raw_put_budget_c budget(100);
  EXPECT_TRUE(budget.try_take(80));
  EXPECT_FALSE(budget.try_take(30));
  std::vector<int> granted;
  EXPECT_FALSE(budget.take_or_wait(60, [&] { granted.push_back(1); }));
  EXPECT_FALSE(budget.take_or_wait(10, [&] { granted.push_back(2); }));
  EXPECT_FALSE(budget.try_take(5));
  budget.give_back(20);
  EXPECT_TRUE(granted.empty());
  budget.give_back(60);
  EXPECT_EQ(granted, (std::vector<int>{1, 2}));
  EXPECT_TRUE(budget.try_take(30));
  EXPECT_FALSE(budget.try_take(1));
}

TEST(raw_put_budget, more_than_all_of_it_is_given_when_all_of_it_is_there) {
  raw_put_budget_c budget(100);
  EXPECT_TRUE(budget.try_take(1000));
  EXPECT_FALSE(budget.try_take(1));
  budget.give_back(1000);
  EXPECT_TRUE(budget.try_take(100));
}

}  // namespace
}  // namespace be::raw
