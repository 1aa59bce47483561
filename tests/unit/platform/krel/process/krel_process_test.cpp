// The daemon's life, in processes of their own: each test forks before it starts threads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "platform/krel/process/krel_beat.h"
#include "platform/krel/process/krel_instance.h"
#include "platform/krel/process/krel_main.h"
#include "platform/krel/process/krel_monitor.h"
#include "platform/krel/process/krel_shutdown.h"
#include "platform/krel/process/krel_watchdog.h"

namespace {

namespace fs = std::filesystem;

// What processes of a test tell each other.
struct shared_t {
  std::atomic<int> starts{0};
  std::atomic<int> ready{0};
  std::atomic<int> order{0};
  std::atomic<int> hangups{0};
  std::atomic<pid_t> child{0};
};
shared_t *g_shared = nullptr;

class krel_process_test : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/krel_process_XXXXXX";
    m_dir = fs::canonical(mkdtemp(name)).string();
    void *memory = mmap(nullptr, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    g_shared = new (memory) shared_t;
    std::ofstream(config()) << "<app><localstate directory='" << m_dir << "/state'/>"
                            << "<logs><log name='error' path='" << m_dir << "/log'/><log name='notice' path='"
                            << m_dir << "/log'/></logs></app>";
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string config() const { return m_dir + "/app.conf"; }
  std::string log() const {
    std::ifstream in(m_dir + "/log");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  template <typename Function>
  pid_t spawn(const Function &function) const {
    pid_t pid = fork();
    if (pid != 0) return pid;
    std::string error;
    krel_log_configure({}, m_dir + "/log", &error);
    _exit(function());
  }
  static int status_of(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  // Waits for a condition, bounded.
  template <typename Condition>
  static bool eventually(const Condition &condition) {
    for (int i = 0; i < 6000; i++) {
      if (condition()) return true;
      usleep(5000);
    }
    return false;
  }
  static krel_monitor_options_t quick() {
    krel_monitor_options_t options;
    options.restart = {1, 4, 60000, 5};
    return options;
  }
  std::string m_dir;
};

TEST(krel_restart_policy_test, pauses_double_up_to_the_most_and_short_lives_are_counted) {
  krel_restart_policy_c policy({1000, 5000, 60000, 5});
  EXPECT_EQ(policy.after_death(10), 1000u);
  EXPECT_EQ(policy.after_death(59999), 2000u);
  EXPECT_EQ(policy.after_death(0), 4000u);
  EXPECT_EQ(policy.after_death(0), 5000u);
  EXPECT_EQ(policy.after_death(60000), 1000u);  // a long life starts over
  EXPECT_EQ(policy.after_death(0), 1000u);
  EXPECT_EQ(policy.after_death(0), 2000u);
  EXPECT_EQ(policy.after_death(0), 4000u);
  EXPECT_EQ(policy.after_death(0), 5000u);
  EXPECT_EQ(policy.after_death(0), std::nullopt);
}

TEST_F(krel_process_test, a_child_that_ends_well_ends_the_monitor) {
  pid_t monitor = spawn([] {
    return krel_monitor_c(quick()).run([] {
      g_shared->starts++;
      return 0;
    });
  });
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->starts, 1);
}

TEST_F(krel_process_test, a_status_from_before_the_start_was_over_is_passed_on) {
  pid_t monitor = spawn([] {
    return krel_monitor_c(quick()).run([] {
      g_shared->starts++;
      return 2;
    });
  });
  EXPECT_EQ(status_of(monitor), 2);
  EXPECT_EQ(g_shared->starts, 1);
  EXPECT_THAT(log(), testing::HasSubstr("exited with status 2 before it had started; not starting it again"));
}

TEST_F(krel_process_test, deaths_are_answered_by_restarts_until_there_are_too_many) {
  pid_t monitor = spawn([] {
    return krel_monitor_c(quick()).run([]() -> int {
      if (g_shared->starts++ % 2 == 0) krel_fatal("dying on purpose\n");
      krel_watchdog_enable_all();
      return 255;
    });
  });
  EXPECT_EQ(status_of(monitor), 1);
  EXPECT_EQ(g_shared->starts, 5);
  EXPECT_THAT(log(), testing::HasSubstr("[FATAL] dying on purpose"));
  EXPECT_THAT(log(), testing::HasSubstr("was killed by signal 6"));
  EXPECT_THAT(log(), testing::HasSubstr("exited with status 255"));
  EXPECT_THAT(log(), testing::HasSubstr("GIVING UP"));
}

TEST_F(krel_process_test, a_child_that_stops_beating_is_killed_and_started_again) {
  std::ofstream(m_dir + "/glider") << "#!/bin/sh\necho \"$2\" >> " << m_dir << "/glided\n";
  fs::permissions(m_dir + "/glider", fs::perms::owner_all);
  pid_t monitor = spawn([this] {
    krel_monitor_options_t options = quick();
    options.stall_ms = 50;
    options.glider = m_dir + "/glider";
    return krel_monitor_c(options).run([] {
      if (g_shared->starts++ > 0) return 0;
      krel_beat()->beat_ns = 1;
      krel_beat()->watching = true;  // and never beats again
      for (;;) pause();
    });
  });
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->starts, 2);
  EXPECT_THAT(log(), testing::HasSubstr("has not beaten for"));
  std::string glided;
  std::ifstream(m_dir + "/glided") >> glided;
  EXPECT_EQ(glided, "watchdog");
}

TEST_F(krel_process_test, a_loop_that_hangs_is_a_child_that_stops_beating) {
  pid_t monitor = spawn([] {
    krel_monitor_options_t options = quick();
    options.stall_ms = 3000;
    return krel_monitor_c(options).run([] {
      if (g_shared->starts++ > 0) return 0;
      if (krelev_init() != 0) return 3;
      krelev_start_threads();
      krel_watchdog_child_krelev_heartbeat();
      krelev_post(krelev_choose_owner(1), [] {
        for (;;) pause();
      });
      for (;;) pause();
    });
  });
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->starts, 2);
  EXPECT_THAT(log(), testing::HasSubstr("has not beaten for"));
}

TEST_F(krel_process_test, a_child_whose_watchdog_is_disabled_may_take_its_time) {
  pid_t monitor = spawn([] {
    krel_monitor_options_t options = quick();
    options.stall_ms = 1;
    return krel_monitor_c(options).run([] {
      g_shared->starts++;
      krel_beat()->beat_ns = 1;
      krel_watchdog_disable_all();
      krel_beat()->watching = true;
      g_shared->child = getpid();
      while (g_shared->ready == 0) usleep(1000);
      return 0;
    });
  });
  // the monitor looks at the child at each signal it gets: hang-ups make it look
  ASSERT_TRUE(eventually([] { return g_shared->child != 0; }));
  for (int i = 0; i < 20; i++) kill(monitor, SIGHUP), usleep(1000);
  g_shared->ready = 1;
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->starts, 1);
}

int serving_child() {
  g_shared->child = getpid();
  g_shared->starts++;
  krel_log_go_asynch();
  krel_main_on_hangup([](int signal) {
    if (signal == SIGHUP) g_shared->hangups++;
  });
  krel_main_on_shutdown("stores", [] { g_shared->order = g_shared->order * 10 + 3; });
  krel_main_on_shutdown("broken", [] {
    g_shared->order = g_shared->order * 10 + 2;
    throw std::runtime_error("on purpose");
  });
  krel_main_on_shutdown("listeners",
                        [] { g_shared->order = g_shared->order * 10 + (krel_main_shutting_down() ? 1 : 9); });
  krel_watchdog_enable_all();
  g_shared->ready++;
  for (;;) pause();
}

TEST_F(krel_process_test, an_instance_runs_is_told_to_reload_and_ends_in_order) {
  pid_t pid = 0, pgid = 0;
  EXPECT_EQ(krel_main_status("app", config().c_str(), 0, &pid, &pgid), 1);
  auto run = [this](int lock) {
    return krel_main("app", config().c_str(), 0, 1, lock, nullptr, nullptr, nullptr, serving_child);
  };
  pid_t monitor = spawn([&] { return run(1); });
  ASSERT_TRUE(eventually([] { return g_shared->ready == 1; }));
  EXPECT_EQ(krel_main_status("app", config().c_str(), 0, &pid, &pgid), 0);
  EXPECT_EQ(pid, monitor);
  EXPECT_EQ(pgid, getpgid(monitor));
  EXPECT_EQ(status_of(spawn([&] { return run(1); })), 1);  // a second one is refused

  kill(monitor, SIGHUP);
  EXPECT_TRUE(eventually([] { return g_shared->hangups == 1; }));

  // the monitor's end does not let a second instance in before the child has gone
  pid_t waiting = spawn([&] { return run(2); });
  kill(monitor, SIGTERM);
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->order, 123);
  EXPECT_TRUE(eventually([] { return g_shared->ready == 2; }));
  EXPECT_EQ(krel_main_terminate("app", config().c_str(), 0), 0);
  EXPECT_EQ(status_of(waiting), 0);
  EXPECT_EQ(krel_main_status("app", config().c_str(), 0, &pid, &pgid), 1);
  EXPECT_EQ(krel_main_terminate("app", config().c_str(), 0), 0);
  EXPECT_THAT(log(), testing::HasSubstr("broken failed: on purpose"));
}

TEST_F(krel_process_test, an_orphaned_child_ends_in_order_and_keeps_the_lock_until_then) {
  pid_t monitor = spawn(
      [this] { return krel_main("app", config().c_str(), 0, 1, 1, nullptr, nullptr, nullptr, serving_child); });
  ASSERT_TRUE(eventually([] { return g_shared->ready == 1; }));
  kill(monitor, SIGKILL);
  EXPECT_EQ(status_of(monitor), -SIGKILL);
  EXPECT_TRUE(eventually([this] { return krel_instance_c::holder(m_dir + "/state/app.pid") == 0; }));
  EXPECT_EQ(g_shared->order, 123);
}

TEST_F(krel_process_test, a_crashed_child_is_followed_by_another_under_the_same_lock) {
  pid_t monitor = spawn(
      [this] { return krel_main("app", config().c_str(), 0, 1, 1, nullptr, nullptr, nullptr, serving_child); });
  ASSERT_TRUE(eventually([] { return g_shared->ready == 1; }));
  kill(g_shared->child, SIGKILL);
  ASSERT_TRUE(eventually([] { return g_shared->ready == 2; }));
  EXPECT_EQ(krel_instance_c::holder(m_dir + "/state/app.pid"), monitor);
  kill(monitor, SIGINT);
  EXPECT_EQ(status_of(monitor), 0);
  EXPECT_EQ(g_shared->order, 123);
}

TEST_F(krel_process_test, without_a_monitor_the_process_is_the_child) {
  pid_t alone = spawn(
      [this] { return krel_main("app", config().c_str(), 0, 2, 1, nullptr, nullptr, nullptr, serving_child); });
  ASSERT_TRUE(eventually([] { return g_shared->ready == 1; }));
  EXPECT_EQ(g_shared->child, alone);
  kill(alone, SIGTERM);
  EXPECT_EQ(status_of(alone), 0);
  EXPECT_EQ(g_shared->order, 123);
}

TEST_F(krel_process_test, a_daemon_leaves_its_caller_and_its_pid) {
  pid_t caller = spawn(
      [this] { return krel_main("app", config().c_str(), 0, 0, 1, nullptr, nullptr, nullptr, serving_child); });
  EXPECT_EQ(status_of(caller), 0);
  ASSERT_TRUE(eventually([] { return g_shared->ready == 1; }));
  pid_t pid = 0, pgid = 0;
  EXPECT_EQ(krel_main_status("app", config().c_str(), 0, &pid, &pgid), 0);
  EXPECT_NE(pid, caller);
  EXPECT_NE(pgid, getpgid(0));
  EXPECT_EQ(krel_main_terminate("app", config().c_str(), 0), 0);
  EXPECT_EQ(g_shared->order, 123);
}

TEST_F(krel_process_test, what_cannot_start_says_so) {
  std::string none = m_dir + "/none.conf";
  EXPECT_EQ(status_of(spawn([&] {
              return krel_main("app", none.c_str(), 0, 1, 1, nullptr, nullptr, nullptr, serving_child);
            })),
            2);
  EXPECT_THAT(log(), testing::HasSubstr("Cannot load config: '" + none + "'"));
  std::ofstream(config()) << "<app pidfile='" << config() << "/x.pid'/>";
  EXPECT_EQ(status_of(spawn([&] {
              return krel_main("app", config().c_str(), 0, 1, 1, nullptr, nullptr, nullptr, serving_child);
            })),
            1);
  EXPECT_THAT(log(), testing::HasSubstr("cannot open pid file '" + config() + "/x.pid'"));
}

}  // namespace
