// A pass that kill -9 ends at any of its steps goes on or is repeated after the start, and its cells are those
// of a pass that nothing disturbed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "rollup_fixture.h"
#include "rollup_samples.h"

extern char **environ;

namespace db::raw {
namespace {

constexpr uint64_t START = NOW - DAY;
constexpr const char *DEATH =
    "VELMAR_ROLLUP_DEATH";  // "<directory> <kind> <step> <which time> <when a sample comes>"

// Targets whose cells outlive their process: one line each, the last one of a slot counts.
class file_target_c : public rollup_target_c {
 public:
  file_target_c(const std::string &path, unsigned period_s)
      : m_period_s(period_s), m_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
  ~file_target_c() override { ::close(m_fd); }
  unsigned get_period_s() const override { return m_period_s; }
  bool write_numeric(const metric_locator_sp &locator, uint64_t start_ms,
                     std::span<const nnt_multitype> cells) override {
    std::string text;
    for (size_t i = 0; i < cells.size(); i++) {
      const nnt_multitype &c = cells[i];
      if (c.type == NNT_TYPE_ABSENT) continue;
      text += fmt::format("{} {} {} {:x}/{}/{}/{:a}/{:a}/{:a}/{:a}/{:a}\n", m_period_s,
                          fake_target_c::id_of(locator), start_ms + i * m_period_s * 1000, c.value.v_uint64,
                          static_cast<int>(c.type), c.count, c.stddev, c.derivative, c.derivative_stddev,
                          c.counter, c.counter_stddev);
    }
    return append(text);
  }
  bool write_histograms(const metric_locator_sp &locator, std::span<const histogram_cell_t> cells) override {
    std::string text;
    for (const histogram_cell_t &cell : cells)
      text += fmt::format("{} {} {} {}\n", m_period_s, fake_target_c::id_of(locator), cell.ts_ms,
                          fake_target_c::text_of(cell.histogram));
    return append(text);
  }

 private:
  bool append(const std::string &text) const {
    return ::write(m_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  const unsigned m_period_s;
  const int m_fd;
};

// Slot to cell, both as text.
std::map<std::string, std::string> read_cells(const std::string &dir) {
  std::map<std::string, std::string> cells;
  std::ifstream file(dir + "/cells");
  for (std::string line; std::getline(file, line);) {
    size_t at = 0;
    for (int i = 0; i < 3; i++) at = line.find(' ', at + 1);
    cells[line.substr(0, at)] = line.substr(at);
  }
  return cells;
}

// A store with its targets on a directory that a process leaves to the next.
struct scene_t {
  scene_t(const std::string &directory, nomdb_type_e kind)
      : hours(directory + "/cells", 3600), days(directory + "/cells", 86400) {
    init_private_nan();
    for (uint64_t id = 1; id <= 40; id++)
      lookup.add(id, kind == NUMERIC ? METRIC_TYPE_NUMERIC : METRIC_TYPE_HISTOGRAM);
    store = std::make_unique<store_c>(directory + "/store", &lookup,
                                      std::vector<rollup_target_c *>{&hours, &days}, store_options_t{kind});
  }
  void write_late() {
    if (lookup.metrics[1]->type == METRIC_TYPE_NUMERIC)
      store->write({nom_sample_t::of_uint32(1, START * 1000, 4000000)});
    else
      store->write_histogram(lookup.metrics[1], START * 1000, {77}, true);
  }
  // Both shards, until nothing is left to do.
  void settle() {
    for (uint64_t now_s = NOW + HOUR; now_s < NOW + 4 * DAY; now_s += HOUR) {
      store->set_now(now_s);
      store->steps.run_all();
    }
    for (const uint64_t at_s : {START, NOW})
      EXPECT_TRUE(store->shard(at_s)->get_rollup_progress().is_finished());
  }

  fake_lookup_c lookup;
  file_target_c hours, days;
  std::unique_ptr<store_c> store;
};

struct death_t {
  std::string directory;
  int kind = NUMERIC;
  std::string step;
  int countdown = 0;  // steps of that name
  int late_at = -1;   // records until a sample comes; -1: none does
  scene_t *scene = nullptr;
  static void run(void *closure, const char *, const char *step) {
    auto *self = static_cast<death_t *>(closure);
    if (std::string_view(step) == "record" && self->late_at-- == 0) {
      self->scene->write_late();
      std::ofstream(self->directory + "/acknowledged");
    }
    if (self->step == step && self->countdown-- == 0) kill(getpid(), SIGKILL);
  }
};

// The process that dies; started by the tests below.
TEST(rollup_crash, child) {
  const char *text = getenv(DEATH);
  if (!text) GTEST_SKIP() << "runs as a child only";
  death_t death;
  std::istringstream(text) >> death.directory >> death.kind >> death.step >> death.countdown >> death.late_at;
  scene_t scene(death.directory, static_cast<nomdb_type_e>(death.kind));
  death.scene = &scene;
  rollup_step_hook_register("death", death_t::run, &death);
  scene.store->ctx->force_rollup(START);
  scene.store->steps.run_all();
}

// Two shards of samples, and the cells of passes that nothing disturbs, without and with the late sample.
struct prepared_t {
  explicit prepared_t(nomdb_type_e of_kind) : kind(of_kind) {
    std::filesystem::create_directories(dir / "filled/store");
    fill(scene_t(dir / "filled", kind));
    for (const bool late : {false, true}) {
      const std::string directory = copy("undisturbed" + std::to_string(late));
      {
        scene_t scene(directory, kind);
        if (late) scene.write_late();
        scene.settle();
      }
      undisturbed[late] = read_cells(directory);
    }
    EXPECT_NE(undisturbed[0], undisturbed[1]);
  }
  void fill(const scene_t &scene) {
    if (kind == NUMERIC) {
      for (const uint64_t from_s : {START, NOW}) scene.store->write(make_samples(from_s, from_s + DAY));
      return;
    }
    for (const auto &[id, locator] : scene.lookup.metrics)
      for (uint64_t ts_s = START + id; ts_s < NOW + HOUR; ts_s += 600)
        scene.store->write_histogram(locator, ts_s * 1000, {1.0 * static_cast<double>(ts_s % 99)}, true);
  }
  std::string copy(const std::string &name) const {
    std::filesystem::remove_all(dir / name);
    std::filesystem::copy(dir / "filled", dir / name, std::filesystem::copy_options::recursive);
    return dir / name;
  }
  static const prepared_t &of(nomdb_type_e kind) {
    static const prepared_t numeric(NUMERIC), histogram(HISTOGRAM);
    return kind == NUMERIC ? numeric : histogram;
  }

  const nomdb_type_e kind;
  const temp_dir_c dir;
  std::map<std::string, std::string> undisturbed[2];
};

// What became of a child: the signal that ended it, 0 when it ended by itself.
int run_child(const std::string &death) {
  setenv(DEATH, death.c_str(), 1);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);
  const char *const arguments[] = {"child", "--gtest_filter=rollup_crash.child", nullptr};
  pid_t pid = 0;
  const int failed =
      posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, const_cast<char **>(arguments), environ);
  posix_spawn_file_actions_destroy(&actions);
  unsetenv(DEATH);
  EXPECT_EQ(failed, 0);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0);
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

class rollup_crash_at : public testing::TestWithParam<std::tuple<nomdb_type_e, const char *>> {};

TEST_P(rollup_crash_at, ends_in_the_same_cells) {
  const auto [kind, step] = GetParam();
  const prepared_t &prepared = prepared_t::of(kind);
  struct run_t {
    int time, late_at;
  };
  // the sample comes in the second family, behind its metric
  for (const auto &[time, late_at] : {run_t{0, -1}, run_t{0, 150}, run_t{9, 150}}) {
    SCOPED_TRACE(fmt::format("{} {}, a sample at {}", step, time, late_at));
    const std::string directory = prepared.copy("disturbed");
    const int signal =
        run_child(fmt::format("{} {} {} {} {}", directory, static_cast<int>(kind), step, time, late_at));
    ASSERT_TRUE(signal == SIGKILL || (time > 0 && signal == 0));
    {
      scene_t scene(directory, kind);
      scene.settle();
    }
    const bool acknowledged = std::filesystem::exists(directory + "/acknowledged");
    ASSERT_TRUE(read_cells(directory) == prepared.undisturbed[acknowledged]);
  }
}

INSTANTIATE_TEST_SUITE_P(every_step, rollup_crash_at,
                         testing::Combine(testing::Values(NUMERIC, HISTOGRAM),
                                          testing::Values("start", "record", "cells", "carried", "state",
                                                          "walked", "done", "joined", "finished")),
                         [](const auto &parameters) {
                           return std::string(std::get<0>(parameters.param) == NUMERIC ? "numeric_"
                                                                                       : "histogram_") +
                                  std::get<1>(parameters.param);
                         });

}  // namespace
}  // namespace db::raw
