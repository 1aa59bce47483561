// Power cuts at every step of every write: nothing acknowledged is lost, nothing deleted comes back, and the
// next start gets along with what is left.
#include <gtest/gtest.h>

#include "database_fixture.h"
#include "dying_child.h"
#include "support/log_capture.h"

namespace db::surrogate3 {

namespace {

constexpr int ROUNDS = 3, METRICS = 6;

// Each round writes some new and some known metrics with the round as their account, and erases one.
void scenario(const std::string &root, fault_files_c &files, const dying_child_c::report_f &report) {
  const auto database = open_database(root, 1, files);
  for (int round = 1; round <= ROUNDS; ++round) {
    std::vector<metric_write_t> writes;
    for (int i = 0; i < METRICS; ++i)
      writes.push_back(
          {make_metric("m" + std::to_string(i + round * METRICS / 2), 1, round), round * 100'000'000});
    std::string lines;
    const auto results = write_metrics(*database, writes);
    for (size_t i = 0; i < writes.size(); ++i)
      lines += "wrote " + name_of(writes[i].metric) + " " + std::to_string(results[i].id) + " " +
               std::to_string(round) + "\n";
    report(lines);
    report("erases " + std::to_string(results[1].id));
    database->batch_erase(std::vector<uint64_t>{results[1].id});
    report("erased " + std::to_string(results[1].id));
  }
}

struct acknowledged_t {
  struct metric_t {
    uint64_t id;
    int32_t round;
  };
  std::map<std::string, metric_t> written;
  std::set<uint64_t> maybe_erased, erased;

  explicit acknowledged_t(const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
      std::istringstream in(line);
      std::string what, name;
      metric_t metric{};
      in >> what;
      if (what == "wrote" && in >> name >> metric.id >> metric.round) written[name] = metric;
      if (what == "erases" && in >> metric.id) maybe_erased.insert(metric.id);
      if (what == "erased" && in >> metric.id) erased.insert(metric.id);
    }
  }
};

void verify(const std::string &root, const acknowledged_t &acknowledged) {
  const auto database = open_database(root, 2);
  uint64_t highest = 0;
  for (const auto &[name, metric] : acknowledged.written) {
    highest = std::max(highest, metric.id);
    const metric_locator_sp stored = database->find_reverse(metric.id);
    if (acknowledged.erased.count(metric.id)) {
      EXPECT_FALSE(stored) << name;
      EXPECT_NE(database->find(make_metric(name)), metric.id) << name;
    } else if (stored || !acknowledged.maybe_erased.count(metric.id)) {
      ASSERT_TRUE(stored) << name;
      EXPECT_EQ(name_of(stored), name);
      EXPECT_EQ(database->find(make_metric(name)), metric.id);
      EXPECT_GE(velmar_metric_locator_get_account_id(stored.get()), metric.round) << name;
      const auto second = static_cast<uint64_t>(metric.round) * 100'000;
      EXPECT_TRUE(velmar_metric_locator_was_active(stored.get(), second, second)) << name;
    }
  }
  std::set<std::string> names;
  for (const metric_locator_sp &metric : database->side_load_all_surrogates())
    EXPECT_TRUE(names.insert(name_of(metric)).second) << name_of(metric);
  EXPECT_GT(write_metric(*database, make_metric("fresh")).id, highest);
}

}  // namespace

TEST(Crash, PowerCutAtEveryStep) {
  for (const crash_loss_e loss : {crash_loss_e::everything_unsynced, crash_loss_e::random}) {
    bool finished = false;
    uint64_t step = 1;
    for (; !finished; ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      const temp_dir_c dir;
      const auto lines = dying_child_c::run(
          dir.path(), step, loss,
          [&](fault_files_c &files, const dying_child_c::report_f &report) {
            files.cut_power_at_step(step);
            scenario(dir / "db", files, report);
          },
          &finished);
      const log_capture_c log("error");
      verify(dir / "db", acknowledged_t(lines));
      if (step % 8 == 0) verify(dir / "db", acknowledged_t(lines));  // and the start after that
    }
    EXPECT_GT(step, 30u);
  }
}

TEST(Crash, EveryFailingStepEndsTheProcessBeforeItAcknowledges) {
  bool was_hit = true;
  for (uint64_t step = 1; was_hit; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const temp_dir_c dir;
    bool finished = false;
    const auto lines = dying_child_c::run(
        dir.path(), step, crash_loss_e::everything_unsynced,
        [&](fault_files_c &files, const dying_child_c::report_f &report) {
          files.fail_step(step, EIO);
          scenario(dir / "db", files, report);
          if (files.steps() < step) report("never hit");
        },
        &finished);
    was_hit = lines.empty() || lines.back() != "never hit";
    const log_capture_c log("error");
    verify(dir / "db", acknowledged_t(lines));
  }
}

}  // namespace db::surrogate3
