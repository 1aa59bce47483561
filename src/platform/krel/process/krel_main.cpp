#include "platform/krel/process/krel_main.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"
#include "platform/krel/process/krel_instance.h"
#include "platform/krel/process/krel_monitor.h"
#include "platform/krel/process/krel_shutdown.h"

namespace {

constexpr uint64_t k_least_stall_ms = 5000;  // an idle loop turns once a second, beats come twice
constexpr uint64_t k_terminate_ns = 60'000'000'000;

bool load(const char *config_file, int debug) {
  if (debug > 0) krel_log_stream_switch("debug", true);
  if (krel_conf_load(config_file)) return true;
  krel_log(krel_error, "Cannot load config: '%s'\n", config_file);
  return false;
}

// True in the daemon, which has no terminal; the caller's process goes on with false.
bool become_daemon() {
  std::fflush(nullptr);
  pid_t first = fork();
  if (first < 0) krel_fatal("cannot fork the daemon: %s\n", std::strerror(errno));
  if (first > 0) {
    int status = 0;
    while (waitpid(first, &status, 0) < 0 && errno == EINTR) {
    }
    return false;
  }
  setsid();
  pid_t second = fork();
  if (second < 0) krel_fatal("cannot fork the daemon: %s\n", std::strerror(errno));
  if (second > 0) _exit(0);
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (null >= 0) dup2(null, fd);
  return true;
}

}  // namespace

int krel_main(const char *app, const char *config_file, int debug, int foreground, int lock, const char *glider,
              const char *user, const char *group, int (*child_main)()) {
  signal(SIGPIPE, SIG_IGN);
  if (!load(config_file, debug)) return 2;
  krel_monitor_options_t options;
  krel_conf_get_duration(KREL_CONF_ROOT, "//watchdog/@timeout", krel_get_durations_ms(), &options.stall_ms);
  if (options.stall_ms < k_least_stall_ms) {
    krel_log(krel_error,
             "configuration error: //watchdog/@timeout is below 5s: idle loops would count as hung\n");
    return 2;
  }
  if (glider != nullptr) options.glider = glider;

  krel_instance_c instance;
  std::string error;
  if (instance.take(krel_instance_path(app), lock == 2, &error) != krel_instance_c::outcome_e::taken) {
    krel_log(krel_error, "%s\n", error.c_str());
    return 1;
  }
  krel_conf_log_init(app, foreground > 0);
  if (foreground == 0 && !become_daemon()) return 0;
  if (!instance.write_pid(getpid())) {
    krel_log(krel_error, "cannot write pid file '%s': %s\n", krel_instance_path(app).c_str(),
             std::strerror(errno));
    return 1;
  }
  if (foreground >= 2) {
    krel_signals_start();
    return child_main();
  }
  return krel_monitor_c(std::move(options)).run(child_main);
}

int krel_main_terminate(const char *app, const char *config_file, int debug) {
  if (!load(config_file, debug)) return 2;
  std::string path = krel_instance_path(app);
  uint64_t until_ns = krel_gethrtime() + k_terminate_ns;
  pid_t signalled = 0;
  for (;;) {
    pid_t pid = krel_instance_c::holder(path);
    if (pid == 0) break;
    if (pid > 0 && pid != signalled) {
      if (kill(pid, SIGTERM) != 0 && errno != ESRCH) {
        krel_log(krel_error, "cannot signal pid %d: %s\n", pid, std::strerror(errno));
        return 1;
      }
      signalled = pid;
    }
    if (krel_gethrtime() >= until_ns) {
      krel_log(krel_error, "pid %d is still running after 60 s\n", pid);
      return 1;
    }
    struct timespec pause = {0, 20'000'000};
    nanosleep(&pause, nullptr);
  }
  if (signalled == 0) krel_log(krel_notice, "no instance is running\n");
  return 0;
}

int krel_main_status(const char *app, const char *config_file, int debug, pid_t *pid, pid_t *pgid) {
  if (!load(config_file, debug)) return 2;
  pid_t holder = krel_instance_c::holder(krel_instance_path(app));
  if (holder == 0) return 1;
  *pid = holder;
  *pgid = holder > 0 ? getpgid(holder) : -1;
  return 0;
}

void krel_main_enable_log(const char *stream) {
  krel_log_stream_switch(stream, true);
}
void krel_main_disable_log(const char *stream) {
  krel_log_stream_switch(stream, false);
}

void krel_main_krelev_config(const char *key, const char *value) {
  krelev_config(key, value);
}
