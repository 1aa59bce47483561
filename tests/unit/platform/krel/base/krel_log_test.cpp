#include "platform/krel/base/krel_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/krel/base/krel_log_outlet.h"
#include "platform/krel/base/krel_util.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

class krel_log_test : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/krel_log_XXXXXX";
    m_dir = mkdtemp(name);
  }
  void TearDown() override {
    std::string error;
    krel_log_go_synch();
    krel_log_rotation(false);
    krel_log_configure({}, "-", &error);
    fs::remove_all(m_dir);
  }
  std::string path(const std::string &name) const { return m_dir + "/" + name; }
  static std::string read(const std::string &file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // Messages alone, without "[time] [stream] [thread] ".
  static std::vector<std::string> messages(const std::string &file) {
    std::vector<std::string> found;
    std::istringstream in(read(file));
    for (std::string line; std::getline(in, line);) {
      size_t at = 0;
      for (int i = 0; i < 3; i++) at = line.find("] ", at) + 2;
      found.push_back(line.substr(at));
    }
    return found;
  }
  static void configure(const std::vector<krel_log_setting_t> &settings, const std::string &fallback) {
    std::string error;
    ASSERT_TRUE(krel_log_configure(settings, fallback, &error)) << error;
  }
  std::string m_dir;
};

TEST_F(krel_log_test, a_line_has_time_in_utc_stream_thread_and_message) {
  configure({}, path("all"));
  struct timeval when = {1769860800, 123456};  // 2026-01-31 12:00:00 UTC
  std::thread([&] {
    krel_thread_setname("worker/3");
    krel_log_write_printf(krel_log_stream_find("error/metrics"), &when, __FILE__, __LINE__, "read %d of %s\n",
                          3, "x");
    when.tv_usec = 7;
    krel_log_write_printf(krel_error, &when, __FILE__, __LINE__, "no newline");
  }).join();
  EXPECT_EQ(read(path("all")),
            "[2026-01-31 12:00:00.123456] [error/metrics] [worker/3] read 3 of x\n"
            "[2026-01-31 12:00:00.000007] [error] [worker/3] no newline\n");
}

TEST_F(krel_log_test, a_message_cannot_forge_a_line_and_may_be_long) {
  configure({}, path("all"));
  std::string hostile = "name\n[2026-01-31 12:00:00.000000] [error] [main] forged\x1b[2J\x7f";
  krel_log(krel_error, "%s\n", hostile.c_str());
  krel_ex_log(krel_error, "{}", std::string(100000, 'y'));
  krel_log(krel_error, "%s", std::string(100000, 'z').c_str());
  std::vector<std::string> lines = messages(path("all"));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "name\\x0a[2026-01-31 12:00:00.000000] [error] [main] forged\\x1b[2J\\x7f");
  EXPECT_EQ(lines[1], std::string(100000, 'y'));
  EXPECT_EQ(lines[2], std::string(100000, 'z'));
}

TEST_F(krel_log_test, lines_go_to_the_nearest_outlets_up_the_tree) {
  krel_log_stream_t *deep = krel_log_stream_find("notice/tree/deep/deeper");
  krel_log_stream_t *aside = krel_log_stream_find("notice/aside");
  configure(
      {{"notice/tree", {}, path("tree1")}, {"notice/tree", {}, path("tree2")}, {"notice/tree/deep", true, ""}},
      path("rest"));
  krel_log(deep, "one\n");
  krel_log(aside, "two\n");
  krel_log(krel_notice, "three\n");
  EXPECT_THAT(messages(path("tree1")), ElementsAre("one"));
  EXPECT_THAT(messages(path("tree2")), ElementsAre("one"));
  EXPECT_THAT(messages(path("rest")), ElementsAre("two", "three"));
}

TEST_F(krel_log_test, switches_follow_the_tree_and_those_by_hand_beat_the_configuration) {
  configure({}, path("all"));
  krel_log_stream_t *leaf = krel_log_stream_find("debug/switch/leaf");
  EXPECT_FALSE(krel_log_has_material_output(krel_debug));
  EXPECT_FALSE(krel_log_has_material_output(leaf));
  EXPECT_TRUE(krel_log_has_material_output(krel_log_stream_find("notice/startup")));
  EXPECT_TRUE(krel_log_stream_exists("debug/switch"));
  EXPECT_FALSE(krel_log_stream_exists("debug/switch/other"));

  configure({{"debug/switch", true, ""}}, path("all"));
  EXPECT_TRUE(krel_log_has_material_output(leaf));
  EXPECT_TRUE(krel_log_has_material_output(krel_log_stream_find("debug/switch/made_after")));
  EXPECT_FALSE(krel_log_has_material_output(krel_debug));

  krel_log_stream_switch("debug/switch", false);
  krel_log_stream_switch("debug/by_hand", true);  // before the configuration is read
  configure({{"debug/switch", true, ""}, {"debug/by_hand", false, ""}}, path("all"));
  EXPECT_FALSE(krel_log_has_material_output(leaf));
  EXPECT_TRUE(krel_log_has_material_output(krel_log_stream_find("debug/by_hand/leaf")));

  int evaluated = 0;
  krel_log(leaf, "%d\n", ++evaluated);
  krel_ex_log(leaf, "{}\n", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}

TEST_F(krel_log_test, a_file_that_cannot_be_opened_leaves_the_outlets_before_in_force) {
  configure({}, path("all"));
  std::string error;
  EXPECT_FALSE(krel_log_configure({{"error", {}, m_dir + "/missing/x"}}, path("other"), &error));
  EXPECT_THAT(error, testing::HasSubstr(m_dir + "/missing/x"));
  krel_log(krel_error, "still here\n");
  EXPECT_THAT(messages(path("all")), ElementsAre("still here"));
}

TEST_F(krel_log_test, reopening_follows_a_file_that_was_moved_away) {
  configure({}, path("all"));
  krel_log(krel_error, "one\n");
  fs::rename(path("all"), path("moved"));
  krel_log(krel_error, "two\n");
  krel_log_reopen_all();
  krel_log(krel_error, "three\n");
  EXPECT_THAT(messages(path("moved")), ElementsAre("one", "two"));
  EXPECT_THAT(messages(path("all")), ElementsAre("three"));
}

TEST_F(krel_log_test, asynch_keeps_each_threads_order_and_loses_nothing) {
  configure({}, path("all"));
  constexpr int k_threads = 4, k_lines = 2000;
  krel_log_go_asynch();
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; t++)
    threads.emplace_back([t] {
      for (int i = 0; i < k_lines; i++) krel_log(krel_error, "%d %d\n", t, i);
    });
  for (auto &thread : threads) thread.join();
  krel_log_go_synch();
  krel_log(krel_error, "last\n");
  std::vector<std::string> lines = messages(path("all"));
  ASSERT_EQ(lines.size(), size_t{k_threads * k_lines + 1});
  EXPECT_EQ(lines.back(), "last");
  int next[k_threads] = {};
  for (size_t i = 0; i + 1 < lines.size(); i++) {
    int t = -1, n = -1;
    ASSERT_EQ(sscanf(lines[i].c_str(), "%d %d", &t, &n), 2) << lines[i];
    ASSERT_EQ(n, next[t]++);
  }
}

TEST_F(krel_log_test, modes_may_change_under_load) {
  configure({}, path("all"));
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&] {
      while (!stop || written < 100) {
        krel_log(krel_error, "x\n");
        written++;
      }
    });
  for (int i = 0; i < 20; i++) {
    krel_log_go_asynch();
    krel_log_reopen_all();
    krel_log_go_synch();
  }
  stop = true;
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(messages(path("all")).size(), static_cast<size_t>(written.load()));
}

TEST_F(krel_log_test, a_fatal_error_writes_what_was_queued_then_itself_then_aborts) {
  configure({}, path("all"));
  EXPECT_EXIT(
      {
        krel_log_go_asynch();
        for (int i = 0; i < 100; i++) krel_log(krel_notice, "queued\n");
        krel_fatal("bad value %d\n", 7);
      },
      testing::KilledBySignal(SIGABRT), "");
  std::vector<std::string> lines = messages(path("all"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_EQ(lines.back(), "[FATAL] bad value 7");
  EXPECT_EXIT(krel_assert(1 + 1 == 3), testing::KilledBySignal(SIGABRT), "");
  EXPECT_THAT(messages(path("all")).back(),
              testing::MatchesRegex("\\[FATAL\\] assertion \\(1 \\+ 1 == 3\\) at .*"));
}

TEST_F(krel_log_test, a_forked_child_of_an_asynch_process_logs_and_does_not_repeat_the_parents_lines) {
  configure({}, path("all"));
  krel_log_go_asynch();
  krel_log(krel_error, "parent\n");
  pid_t child = fork();
  if (child == 0) {
    krel_log(krel_error, "child\n");
    _exit(0);
  }
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  krel_log_go_synch();
  EXPECT_THAT(messages(path("all")), testing::UnorderedElementsAre("parent", "child"));
}

TEST_F(krel_log_test, a_stream_on_a_descriptor_writes_there_alone) {
  configure({}, path("all"));
  int fd = open(path("fd").c_str(), O_WRONLY | O_CREAT, 0600);
  krel_log_stream_t *stream = krel_log_stream_new_on_fd("on_fd/put", fd);
  krel_log(stream, "here\n");
  configure({}, path("all"));
  krel_log(stream, "and here\n");
  EXPECT_THAT(messages(path("fd")), ElementsAre("here", "and here"));
  EXPECT_EQ(read(path("all")), "");
  krel_log_stream_switch("on_fd/put", false);
  close(fd);
}

TEST_F(krel_log_test, rotation_names_files_by_time_and_removes_only_its_own_old_ones) {
  std::string error;
  auto outlet = krel_log_outlet_c::open(path("log"), 3600, 7200, &error);
  ASSERT_TRUE(outlet) << error;
  int64_t t0 = static_cast<int64_t>(krel_now_ms() / 1000);
  for (const char *other : {"log.txt", "log.1x", "logs.5", "log.-5"}) std::ofstream(path(other)) << "keep";
  std::ofstream(path("log.5")) << "long ago";
  outlet->write("one\n");
  outlet->rotate_if_due(t0 + 3000);
  EXPECT_EQ(read(path("log")), "one\n");
  outlet->rotate_if_due(t0 + 3700);
  outlet->write("two\n");
  EXPECT_EQ(read(path("log")), "two\n");
  EXPECT_EQ(read(path("log." + std::to_string(t0 + 3700))), "one\n");
  EXPECT_FALSE(fs::exists(path("log.5")));
  outlet->rotate_if_due(t0 + 7400);
  EXPECT_TRUE(fs::exists(path("log." + std::to_string(t0 + 3700))));
  outlet->rotate_if_due(t0 + 11100);
  EXPECT_FALSE(fs::exists(path("log." + std::to_string(t0 + 3700))));
  EXPECT_EQ(read(path("log." + std::to_string(t0 + 7400))), "two\n");
  for (const char *other : {"log.txt", "log.1x", "logs.5", "log.-5"})
    EXPECT_TRUE(fs::exists(path(other))) << other;
}

}  // namespace
