#include "db/surrogate3/coordinator.h"

#include <gtest/gtest.h>

#include <random>
#include <semaphore>
#include <set>

#include "database_fixture.h"

namespace db::surrogate3 {

namespace {

std::map<uint64_t, std::string> all_names(coordinator_c &database) {
  std::map<uint64_t, std::string> names;
  for (const metric_locator_sp &metric : database.side_load_all_surrogates())
    EXPECT_TRUE(names.emplace(velmar_metric_locator_get_surrogate_id(metric.get()), name_of(metric)).second);
  return names;
}

std::vector<std::string> page_by_page(surrogate::batch_find_result_t &pages) {
  std::vector<std::string> out;
  while (pages.fill_next_page()) {
    std::string page;
    for (const auto &metric : pages.get_page_locators()) page += name_of(metric) + " ";
    out.push_back(page);
  }
  return out;
}

}  // namespace

TEST(Coordinator, OneNewMetricTwiceInABatchIsOne) {
  const temp_dir_c dir;
  const auto database = open_database(dir.path());
  const auto results = write_metrics(*database, {{make_metric("a")}, {make_metric("b")}, {make_metric("a")}});
  EXPECT_EQ(results[0].id, 1u);
  EXPECT_EQ(results[1].id, 2u);
  EXPECT_EQ(results[2].id, 1u);
  EXPECT_EQ(results[0].canonical, results[2].canonical);
  EXPECT_TRUE(velmar_metric_locator_is_canonical(results[0].canonical.get()));
  EXPECT_EQ(database->find_reverse(1), results[0].canonical);
}

TEST(Coordinator, KnownMetricsWriteOnlyWhatChanged) {
  const temp_dir_c dir;
  const auto database = open_database(dir.path());
  const auto first = write_metric(*database, make_metric("a"), 3'000'000);
  const auto count = [&](spec_e spec) { return file_ids(dir.path(), spec).size(); };
  EXPECT_EQ(count(surrogate::metadata), 1u);
  EXPECT_EQ(count(surrogate::activity), 1u);

  EXPECT_EQ(write_metric(*database, make_metric("a"), 3'000'999).canonical, first.canonical);
  EXPECT_EQ(write_metric(*database, first.canonical, 0).id, first.id);
  EXPECT_EQ(write_metric(*database, make_metric("a"), 999).id, first.id);  // below a second: no activity
  EXPECT_EQ(count(surrogate::metadata), 1u);
  EXPECT_EQ(count(surrogate::activity), 1u);

  write_metric(*database, make_metric("a"), 3'300'000);
  EXPECT_EQ(count(surrogate::activity), 2u);
  write_metric(*database, make_metric("a", 1, 1, METRIC_TYPE_TEXT));
  EXPECT_EQ(count(surrogate::metadata), 2u);
  EXPECT_EQ(count(surrogate::activity), 2u);
  EXPECT_EQ(velmar_metric_locator_get_type(first.canonical.get()), METRIC_TYPE_TEXT);
  write_metrics(*database, {{first.canonical, 0, true}});  // forced
  EXPECT_EQ(count(surrogate::metadata), 3u);
  EXPECT_EQ(count(surrogate::activity), 3u);
}

TEST(Coordinator, EverythingIsThereAfterARestart) {
  const temp_dir_c dir;
  {
    const auto database = open_database(dir.path());
    write_metrics(*database, {{make_metric("a|ST[x:y]", 1, -3), 600'000}, {make_metric("b"), 900'000'000}});
    auto text = make_metric("a|ST[x:y]", 1, 12, METRIC_TYPE_TEXT);
    velmar_metric_locator_set_egress_function(text.get(), EGRESS_FUNCTION_SUM);
    write_metric(*database, text, 90'000'000'000);
  }
  const auto database = open_database(dir.path(), 4);
  EXPECT_EQ(database->find(make_metric("a|ST[x:y]")), 1u);
  const metric_locator_sp a = database->find_reverse(1);
  ASSERT_TRUE(a);
  EXPECT_EQ(velmar_metric_locator_get_account_id(a.get()), 12);
  EXPECT_EQ(velmar_metric_locator_get_type(a.get()), METRIC_TYPE_TEXT);
  EXPECT_EQ(velmar_metric_locator_get_egress_function(a.get()), EGRESS_FUNCTION_SUM);
  EXPECT_TRUE(velmar_metric_locator_was_active(a.get(), 600, 700));
  EXPECT_TRUE(velmar_metric_locator_was_active(a.get(), 90'000'000, 90'000'000));
  EXPECT_FALSE(velmar_metric_locator_was_active(a.get(), 1'000'000, 80'000'000));
  // the stored instance is one, however it is reached
  EXPECT_EQ(write_metric(*database, make_metric("a|ST[x:y]", 1, 12, METRIC_TYPE_TEXT)).canonical, a);
  EXPECT_EQ(write_metric(*database, make_metric("c")).id, 3u);
  EXPECT_EQ(file_ids(dir.path(), surrogate::metadata), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(all_names(*database), (std::map<uint64_t, std::string>{{1, "a|ST[x:y]"}, {2, "b"}, {3, "c"}}));

  std::map<uint64_t, uint32_t> active;
  database->for_each_activity(
      [](uint64_t id, const oil_list_t *oil, void *closure) {
        (*static_cast<std::map<uint64_t, uint32_t> *>(closure))[id] = oil_size(oil);
        return true;
      },
      &active);
  EXPECT_EQ(active, (std::map<uint64_t, uint32_t>{{1, 2}, {2, 1}}));
  int seen = 0;
  database->for_each_surrogate([](const metric_locator_sp &, void *n) { return ++*static_cast<int *>(n) < 2; },
                               &seen);
  EXPECT_EQ(seen, 2);
}

TEST(Coordinator, LooksUpInPagesAndInOrder) {
  const temp_dir_c dir;
  std::vector<metric_write_t> writes;
  for (int i = 1; i <= 9; ++i) writes.push_back({make_metric("m" + std::to_string(i))});
  for (const bool restarted : {false, true}) {
    const auto database = open_database(dir.path(), 4, util::io::system_files(), 4);
    if (!restarted) write_metrics(*database, writes);
    const std::vector<uint64_t> ids = {9, 77, 3, 3, 1, 0, 8, 2, UINT64_MAX};
    EXPECT_EQ(page_by_page(*database->batch_find(ids)),
              (std::vector<std::string>{"m9 m3 m3 ", "m1 m8 m2 ", ""}));
    std::vector<metric_locator_sp> wanted;
    for (const char *name : {"m5", "m1", "none", "m5", "m2", "m3", "m4"}) wanted.push_back(make_metric(name));
    EXPECT_EQ(page_by_page(*database->batch_find(wanted)), (std::vector<std::string>{"m5 m1 m2 m3 ", "m4 "}));
    EXPECT_TRUE(page_by_page(*database->batch_find(std::vector<metric_locator_sp>())).empty());
    EXPECT_EQ(database->find(make_metric("none")), std::nullopt);
    EXPECT_EQ(database->find(make_metric("none")), std::nullopt);
    EXPECT_FALSE(database->find_reverse(0));
    EXPECT_FALSE(database->find_reverse(10));
    // an id that belongs to another metric does not mislead
    EXPECT_TRUE(page_by_page(*database->batch_find({make_stored_metric(2, "other")})).empty());
    EXPECT_EQ(page_by_page(*database->batch_find({make_stored_metric(2, "m5")})),
              std::vector<std::string>{"m5 "});
  }
}

TEST(Coordinator, AnswersAsynchronously) {
  const temp_dir_c dir;
  {
    const auto database = open_database(dir.path());
    write_metric(*database, make_metric("a", 1, 1, METRIC_TYPE_HISTOGRAM));
  }
  const auto database = open_database(dir.path(), 4);
  struct answer_t {
    uint64_t id = 0;
    metric_locator_sp locator;
    std::binary_semaphore done{0};
  } answer;
  const auto find = [&](const metric_locator_sp &metric) {
    answer.id = 0;
    database->find_surrogate_asynch(
        metric,
        [](const uint64_t *id, void *closure) {
          auto *a = static_cast<answer_t *>(closure);
          a->id = id ? *id : 0;
          a->done.release();
        },
        &answer);
    answer.done.acquire();
    return answer.id;
  };
  const metric_locator_sp metric = make_metric("a");
  EXPECT_EQ(find(metric), 1u);
  EXPECT_EQ(velmar_metric_locator_get_surrogate_id(metric.get()), 1u);
  EXPECT_EQ(velmar_metric_locator_get_type(metric.get()), METRIC_TYPE_HISTOGRAM);
  EXPECT_EQ(find(make_metric("a")), 1u);
  EXPECT_EQ(find(make_metric("b")), 0u);
  for (const uint64_t id : {1, 2}) {
    database->find_surrogate_reverse_asynch(
        id,
        [](const metric_locator_sp &locator, void *closure) {
          auto *a = static_cast<answer_t *>(closure);
          a->locator = locator;
          a->done.release();
        },
        &answer);
    answer.done.acquire();
    EXPECT_EQ(bool(answer.locator), id == 1);
  }
}

TEST(Coordinator, ErasedMetricsAreGoneAndComeBackUnderANewId) {
  const temp_dir_c dir;
  metric_locator_sp old;
  for (const bool in_files : {false, true}) {  // erased by the process that wrote them, and by the next
    const auto database = open_database(dir.path(), 4);
    const uint64_t first = in_files ? 4 : 1;
    if (!in_files) {
      old = write_metrics(*database, {{make_metric("a")}, {make_metric("b")}, {make_metric("c")}})[0].canonical;
    }
    const std::vector<uint64_t> ids = {first, 99, 2};
    const auto [erased, fails] = database->batch_erase(ids);
    EXPECT_EQ(erased.size(), in_files ? 1u : 2u);
    EXPECT_EQ(fails, in_files ? (std::vector<uint64_t>{99, 2}) : std::vector<uint64_t>{99});
    EXPECT_FALSE(velmar_metric_locator_is_canonical(erased[0].get()));
    EXPECT_EQ(name_of(erased[0]), "a");
    for (const char *name : {"a", "b"}) EXPECT_EQ(database->find(make_metric(name)), std::nullopt) << name;
    EXPECT_FALSE(database->find_reverse(first));
    EXPECT_EQ(all_names(*database), (std::map<uint64_t, std::string>{{3, "c"}}));
    EXPECT_EQ(page_by_page(*database->batch_find(ids)), std::vector<std::string>{""});
    if (in_files) break;
    // who kept the erased instance gets a new id with it, and so does everybody else
    const auto again = write_metrics(*database, {{old}, {make_metric("a")}});
    EXPECT_EQ(again[0].id, 4u);
    EXPECT_EQ(again[1].id, 4u);
    EXPECT_EQ(velmar_metric_locator_get_surrogate_id(old.get()), 1u);
    EXPECT_EQ(database->find(make_metric("a")), 4u);
    EXPECT_FALSE(database->find_reverse(1));
  }
  const auto database = open_database(dir.path());
  EXPECT_EQ(all_names(*database), (std::map<uint64_t, std::string>{{3, "c"}}));
  EXPECT_EQ(database->find(make_metric("a")), std::nullopt);
  EXPECT_EQ(write_metric(*database, make_metric("a")).id, 5u);  // above the tombstone, too
}

TEST(Coordinator, AForcedIdIsTakenAndRaisesTheGenerator) {
  const temp_dir_c dir;
  {
    const auto database = open_database(dir.path());
    EXPECT_EQ(write_metrics(*database, {{make_stored_metric(40, "a"), 0, true}})[0].id, 40u);
    EXPECT_EQ(database->find(make_metric("a")), 40u);
    EXPECT_EQ(write_metric(*database, make_metric("b")).id, 41u);
    EXPECT_EQ(write_metrics(*database, {{make_metric("c"), 0, true}})[0].id, 42u);
    EXPECT_EQ(write_metrics(*database, {{make_stored_metric(7, "d"), 0, true}})[0].id, 7u);
    EXPECT_TRUE(database->find_reverse(7));
    database->batch_erase(std::vector<uint64_t>{7});
    write_metrics(*database, {{make_stored_metric(7, "d"), 0, true}});  // back, by order
    EXPECT_EQ(database->find(make_metric("d")), 7u);
  }
  const auto database = open_database(dir.path());
  EXPECT_EQ(all_names(*database), (std::map<uint64_t, std::string>{{7, "d"}, {40, "a"}, {41, "b"}, {42, "c"}}));
  EXPECT_EQ(write_metric(*database, make_metric("e")).id, 43u);
}

// Random operations and restarts against a plain map. Restarts meet so many files that they are merged, too.
TEST(Coordinator, AgreesWithAModel) {
  struct model_t {
    uint64_t id;
    int32_t account;
    std::set<uint64_t> active;  // seconds, far apart
  };
  for (const uint32_t num_threads : {1, 4}) {
    std::mt19937_64 random(num_threads);
    const temp_dir_c dir;
    std::map<std::string, model_t> model;
    uint64_t highest_id = 0;
    auto database = open_database(dir.path(), num_threads);
    const auto write_some = [&] {
      std::vector<metric_write_t> writes;
      for (uint64_t n = random() % 12 + 1; n > 0; --n)
        writes.push_back({make_metric("m" + std::to_string(random() % 60) + "|ST[a:b]", 1,
                                      static_cast<int32_t>(random() % 3)),
                          static_cast<int64_t>(random() % 5 * 100'000'000)});
      const auto results = write_metrics(*database, writes);
      for (size_t i = 0; i < writes.size(); ++i) {
        auto [known, is_new] = model.try_emplace(name_of(writes[i].metric));
        if (is_new) {
          EXPECT_GT(results[i].id, highest_id);
          known->second.id = highest_id = results[i].id;
        }
        EXPECT_EQ(results[i].id, known->second.id);
        known->second.account = velmar_metric_locator_get_account_id(writes[i].metric.get());
        if (writes[i].timestamp_ms)
          known->second.active.insert(static_cast<uint64_t>(writes[i].timestamp_ms / 1000));
      }
    };
    const auto erase_some = [&] {
      std::vector<uint64_t> ids;
      for (uint64_t n = random() % 4; n > 0 && !model.empty(); --n) {
        const auto victim = std::next(model.begin(), static_cast<ptrdiff_t>(random() % model.size()));
        ids.push_back(victim->second.id);
        model.erase(victim);
      }
      EXPECT_TRUE(database->batch_erase(ids).second.empty());
    };
    const auto compare = [&] {
      std::map<uint64_t, std::string> names;
      for (const auto &[name, known] : model) {
        names[known.id] = name;
        EXPECT_EQ(database->find(make_metric(name)), known.id) << name;
        const metric_locator_sp metric = database->find_reverse(known.id);
        ASSERT_TRUE(metric) << name;
        EXPECT_EQ(name_of(metric), name);
        EXPECT_EQ(velmar_metric_locator_get_account_id(metric.get()), known.account) << name;
        for (uint64_t second = 100'000; second < 500'000; second += 100'000)
          EXPECT_EQ(velmar_metric_locator_was_active(metric.get(), second, second),
                    known.active.count(second) == 1)
              << name << " " << second;
      }
      EXPECT_EQ(all_names(*database), names);
    };
    for (int step = 0; step < 200; ++step) {
      random() % 4 ? write_some() : erase_some();
      if (step % 45 != 44) continue;
      compare();
      database.reset();
      database = open_database(dir.path(), num_threads);
      compare();
    }
  }
}

}  // namespace db::surrogate3
