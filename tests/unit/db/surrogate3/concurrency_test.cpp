// Many threads at once: no metric gets two ids, nothing acknowledged is lost, erased metrics stay erased.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "database_fixture.h"
#include "db/surrogate3/recent_locators.h"

namespace db::surrogate3 {

TEST(Concurrency, TheSameNewMetricsFromAllSides) {
  constexpr int THREADS = 4, BATCHES = 30, PER_BATCH = 40;
  const temp_dir_c dir;
  auto database = open_database(dir.path(), 2);
  std::vector<std::map<std::string, metric_result_t>> seen(THREADS);
  std::vector<std::thread> writers;
  for (int t = 0; t < THREADS; ++t)
    writers.emplace_back([&, t] {
      for (int b = 0; b < BATCHES; ++b) {
        std::vector<metric_write_t> writes;
        for (int i = 0; i < PER_BATCH; ++i)  // each batch half of it what the one before wrote
          writes.push_back(
              {make_metric("m" + std::to_string(b * PER_BATCH / 2 + (i * (t + 1)) % PER_BATCH)), 1000});
        const auto results = write_metrics(*database, writes);
        for (size_t i = 0; i < writes.size(); ++i) {
          const auto known = seen[t].try_emplace(name_of(writes[i].metric), results[i]).first;
          EXPECT_EQ(known->second.id, results[i].id);
        }
      }
    });
  for (auto &writer : writers) writer.join();

  std::map<std::string, metric_result_t> all;
  std::map<uint64_t, std::string> by_id;
  for (const auto &of_thread : seen)
    for (const auto &[name, result] : of_thread) {
      const auto known = all.try_emplace(name, result).first;
      EXPECT_EQ(known->second.id, result.id) << name;
      EXPECT_EQ(known->second.canonical, result.canonical) << name;
      EXPECT_EQ(by_id.try_emplace(result.id, name).first->second, name);
    }
  EXPECT_EQ(by_id.rbegin()->first, all.size());  // no id was spent twice on one name
  for (const auto &[name, result] : all) EXPECT_EQ(database->find_reverse(result.id), result.canonical);
  database.reset();
  database = open_database(dir.path(), 4);
  for (const auto &[name, result] : all) EXPECT_EQ(database->find(make_metric(name)), result.id);
}

TEST(Concurrency, WritersReadersAndErasersOfTheSameMetrics) {
  constexpr int METRICS = 12;
  const temp_dir_c dir;
  auto database = open_database(dir.path(), 2);
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> newest_erased{0};
  std::vector<std::thread> threads;
  const auto name_of_number = [](uint64_t i) { return "m" + std::to_string(i % METRICS); };
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&, t] {
      std::mt19937_64 random(static_cast<uint64_t>(t));
      std::map<std::string, metric_locator_sp> kept;  // as a cache above would
      for (int b = 0; b < 60; ++b) {
        std::vector<metric_write_t> writes;
        for (int i = 0; i < 6; ++i) {
          const std::string name = name_of_number(random());
          const auto cached = kept.find(name);
          writes.push_back({random() % 2 && cached != kept.end() ? cached->second : make_metric(name), 1000});
        }
        const auto results = write_metrics(*database, writes);
        for (size_t i = 0; i < writes.size(); ++i) {
          EXPECT_TRUE(velmar_metric_locator_matches(results[i].canonical.get(), writes[i].metric.get()));
          EXPECT_EQ(velmar_metric_locator_get_surrogate_id(results[i].canonical.get()), results[i].id);
          kept[name_of(writes[i].metric)] = results[i].canonical;
        }
      }
    });
  threads.emplace_back([&] {
    std::mt19937_64 random(99);
    while (!stop) {
      const auto id = database->find(make_metric(name_of_number(random())));
      if (!id) continue;
      if (random() % 2) {
        const auto erased = database->batch_erase(std::vector<uint64_t>{*id}).first;
        EXPECT_FALSE(database->find_reverse(*id));
        if (!erased.empty()) newest_erased = *id;
      } else if (const metric_locator_sp metric = database->find_reverse(*id)) {
        EXPECT_EQ(velmar_metric_locator_get_surrogate_id(metric.get()), *id);
      }
    }
  });
  threads[0].join();
  threads[1].join();
  stop = true;
  threads[2].join();

  std::map<std::string, uint64_t> live;
  for (int i = 0; i < METRICS; ++i)
    if (const auto id = database->find(make_metric(name_of_number(i)))) live[name_of_number(i)] = *id;
  EXPECT_GT(newest_erased, 0u);
  database.reset();
  database = open_database(dir.path(), 2);
  std::map<std::string, uint64_t> stored;
  for (const metric_locator_sp &metric : database->side_load_all_surrogates())
    stored[name_of(metric)] = velmar_metric_locator_get_surrogate_id(metric.get());
  EXPECT_EQ(stored, live);
}

TEST(RecentLocators, AreForgottenWhenNobodyCanHaveMissedThem) {
  gather_tracker_c gathers;
  recent_locators_c recent;
  const uint64_t early = gathers.begin();
  recent.add(make_stored_metric(1, "a"), 1);
  recent.add(make_stored_metric(2, "b"), 2);
  recent.forget(gathers.seen_by_all());
  gathers.set_accepted(1);
  const uint64_t late = gathers.begin();
  recent.forget(gathers.seen_by_all());
  EXPECT_EQ(recent.size(), 2u);  // the early batch may still come
  gathers.end(early);
  recent.forget(gathers.seen_by_all());
  EXPECT_FALSE(recent.find(make_metric("a")));
  EXPECT_TRUE(recent.find(make_metric("b")));
  gathers.set_accepted(2);
  recent.forget(gathers.seen_by_all());
  EXPECT_TRUE(recent.find(make_metric("b")));
  gathers.end(late);
  // one that replaced another of its name stays when the other is forgotten
  const auto second = make_stored_metric(3, "b");
  recent.add(second, 3);
  recent.forget(gathers.seen_by_all());
  EXPECT_EQ(recent.find(make_metric("b")), second);
}

}  // namespace db::surrogate3
