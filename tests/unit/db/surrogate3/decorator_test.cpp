#include <gtest/gtest.h>

#include "database_fixture.h"
#include "db/surrogate3/metrics_db_writer_async_decorator.h"

namespace db::surrogate3 {

namespace {

class fake_index_c : public metric_index_facade_c {
 public:
  void update(metric_index_update_e what, const metric_locator_sp &locator) override {
    log.push_back(std::string(what == metric_index_update_e::insert ? "+" : "-") + name_of(locator) + "/" +
                  std::to_string(velmar_metric_locator_get_account_id(locator.get())) + "/" +
                  std::to_string(velmar_metric_locator_get_surrogate_id(locator.get())));
  }
  std::vector<std::string> take() { return std::exchange(log, {}); }
  std::vector<std::string> log;
};

using lines_t = std::vector<std::string>;

}  // namespace

TEST(IndexDecorator, FollowsWritesAccountsAndErasures) {
  const temp_dir_c dir;
  const std::shared_ptr<coordinator_c> database = open_database(dir.path());
  const auto index = std::make_shared<fake_index_c>();
  metrics_db_writer_async_decorator_c decorator(database, database, index);

  const auto results =
      write_metrics(decorator, {{make_metric("a")}, {make_metric("b", 1, 2)}, {make_metric("a")}});
  EXPECT_EQ(index->take(), (lines_t{"+a/1/1", "+b/2/2"}));
  EXPECT_EQ(decorator.find(make_metric("b")), 2u);

  // the account changes while the batch is under way, as when another batch moves the metric
  struct mover_c : surrogate::writer_asynch_c {
    coordinator_c *database;
    metric_locator_sp moved;
    void write_surrogate_set_asynch(surrogate::write_entry_c *entries, size_t count,
                                    surrogate::wrote_cb_f wrote, surrogate::write_error_cb_f error,
                                    void *closure) override {
      velmar_metric_locator_set_accountid(moved.get(), 8);
      database->write_surrogate_set_asynch(entries, count, wrote, error, closure);
    }
  };
  const auto mover = std::make_shared<mover_c>();
  mover->database = database.get();
  mover->moved = results[0].canonical;
  metrics_db_writer_async_decorator_c moving(mover, database, index);
  write_metrics(moving, {{results[0].canonical}});
  EXPECT_EQ(index->take(), (lines_t{"-a/1/1", "+a/8/1"}));

  const auto erased = decorator.batch_erase(std::vector<uint64_t>{1, 50});
  EXPECT_EQ(erased.second, std::vector<uint64_t>{50});
  EXPECT_EQ(index->take(), (lines_t{"-a/8/1"}));

  metrics_db_writer_async_decorator_c without(database, database, nullptr);
  EXPECT_EQ(write_metric(without, make_metric("c")).id, 3u);
  EXPECT_EQ(without.batch_erase(std::vector<uint64_t>{3}).first.size(), 1u);
}

}  // namespace db::surrogate3
