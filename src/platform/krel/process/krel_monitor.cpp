#include "platform/krel/process/krel_monitor.h"

#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/process/krel_beat.h"
#include "platform/krel/process/krel_shutdown.h"

namespace {

constexpr uint64_t k_ms = 1'000'000;  // in nanoseconds
constexpr uint64_t k_look_every_ms = 250;
constexpr uint64_t k_core_cut_off_ms = 5000;  // a dump that is not waited for
constexpr uint64_t k_core_whole_ms = 120000;
constexpr uint64_t k_glider_ms = 30000;

bool g_wait_for_core = false;

sigset_t monitor_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  return signals;
}

// The child may have rotated the file away: the name is opened anew for each of these rare lines.
void say(krel_log_stream_t *stream, const std::string &text) {
  krel_log_reopen_all();
  krel_log(stream, "%s\n", text.c_str());
}

// Waits for the process without minding signals; false when the time is over.
bool wait_for(pid_t pid, uint64_t ms, int *status) {
  uint64_t until_ns = krel_gethrtime() + ms * k_ms;
  for (;;) {
    if (waitpid(pid, status, WNOHANG) == pid) return true;
    if (krel_gethrtime() >= until_ns) return false;
    struct timespec pause = {0, 10'000'000};
    nanosleep(&pause, nullptr);
  }
}

std::string how_it_ended(int status) {
  if (WIFEXITED(status)) return fmt::format("exited with status {}", WEXITSTATUS(status));
  return fmt::format("was killed by signal {} ({}){}", WTERMSIG(status), strsignal(WTERMSIG(status)),
                     WCOREDUMP(status) ? ", core dumped" : "");
}

[[noreturn]] void run_child(pid_t monitor, const std::function<int()> &child_main) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);  // without its monitor it ends in order
  if (getppid() != monitor) _exit(1);
  krel_thread_setname("main");
  sigset_t child_ended;  // the others stay blocked until the thread that takes them runs
  sigemptyset(&child_ended);
  sigaddset(&child_ended, SIGCHLD);
  pthread_sigmask(SIG_UNBLOCK, &child_ended, nullptr);
  krel_signals_start();
  int result = child_main();
  krel_log_go_synch();
  std::fflush(nullptr);
  _exit(result);
}

}  // namespace

void krel_monitor_wait_for_core_dumps() {
  g_wait_for_core = true;
}

std::optional<uint64_t> krel_restart_policy_c::after_death(uint64_t lived_ms) {
  if (lived_ms >= m_limits.short_life_ms)
    m_short_lives = 0;
  else if (++m_short_lives >= m_limits.most_short_lives)
    return std::nullopt;
  int doublings = std::max(m_short_lives - 1, 0);
  return std::min(m_limits.first_ms << std::min(doublings, 20), m_limits.most_ms);
}

krel_monitor_c::krel_monitor_c(krel_monitor_options_t options)
    : m_options(std::move(options)), m_policy(m_options.restart), m_beat(krel_beat_map()) {
  if (m_beat == nullptr) krel_fatal("cannot share memory with the child: %s\n", std::strerror(errno));
}

int krel_monitor_c::run(const std::function<int()> &child_main) {
  sigset_t signals = monitor_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  krel_thread_setname("monitor");
  for (;;) {
    pid_t child = start(child_main);
    if (child < 0) {
      say(krel_error, fmt::format("cannot fork the child: {}", std::strerror(errno)));
      return 1;
    }
    end_t end = watch(child);
    if (std::optional<int> result = result_of(child, end)) return *result;
    std::optional<uint64_t> pause_ms = m_policy.after_death(end.lived_ms);
    if (!pause_ms) {
      say(krel_error,
          fmt::format("child {} {} after {} ms; that was death {} within {} s of a start: GIVING UP, "
                      "the service is down",
                      child, how_it_ended(end.status), end.lived_ms, m_policy.short_lives(),
                      m_options.restart.short_life_ms / 1000));
      return 1;
    }
    say(krel_error, fmt::format("child {} {} after {} ms; starting it again in {} ms", child,
                                how_it_ended(end.status), end.lived_ms, *pause_ms));
    if (!pause(*pause_ms)) return 0;
  }
}

pid_t krel_monitor_c::start(const std::function<int()> &child_main) {
  m_beat->beat_ns = 0;
  m_beat->watching = false;
  m_beat->disabled = 0;
  m_beat->started = false;
  m_beat->stopping = false;
  m_not_before_ns = m_looked_ns = krel_gethrtime();
  std::fflush(nullptr);
  pid_t monitor = getpid();
  pid_t child = fork();
  if (child != 0) return child;
  krel_beat_share(m_beat);
  run_child(monitor, child_main);
}

krel_monitor_c::end_t krel_monitor_c::watch(pid_t child) {
  uint64_t started_ns = krel_gethrtime();
  auto lived = [started_ns] { return (krel_gethrtime() - started_ns) / k_ms; };
  int status = 0;
  bool killed = false;
  for (;;) {
    take_signals(child, k_look_every_ms);
    if (reaped(child, &status)) break;
    uint64_t now_ns = krel_gethrtime();
    if (m_stopping) {
      if (killed || now_ns - m_stopping_since_ns < m_options.stop_ms * k_ms) continue;
      say(krel_error, fmt::format("child {} has not ended within {} ms: killing it", child, m_options.stop_ms));
      kill(child, SIGKILL);
      killed = true;
    } else if (has_stalled(now_ns)) {
      say(krel_error, fmt::format("child {} has not beaten for {} ms: killing it", child,
                                  (now_ns - m_beat->beat_ns) / k_ms));
      status = kill_stalled(child);
      break;
    }
  }
  if (WIFSIGNALED(status) && !m_stopping) run_glider(child, "crash");
  return {status, lived()};
}

bool krel_monitor_c::reaped(pid_t child, int *status) {
  pid_t done;
  do {
    done = waitpid(child, status, WNOHANG);
  } while (done < 0 && errno == EINTR);
  return done == child;
}

bool krel_monitor_c::has_stalled(uint64_t now_ns) {
  // A monitor that was itself held up (stopped, starved) has not seen the beats of that time.
  if (now_ns - m_looked_ns > 4 * k_look_every_ms * k_ms) m_not_before_ns = now_ns;
  m_looked_ns = now_ns;
  if (!m_beat->watching || m_beat->disabled > 0 || m_beat->stopping) return false;
  uint64_t since_ns = std::max(m_beat->beat_ns.load(), m_not_before_ns);
  return now_ns > since_ns && now_ns - since_ns > m_options.stall_ms * k_ms;
}

int krel_monitor_c::kill_stalled(pid_t child) {
  run_glider(child, "watchdog");
  int status = 0;
  kill(child, SIGABRT);
  if (wait_for(child, g_wait_for_core ? k_core_whole_ms : k_core_cut_off_ms, &status)) return status;
  kill(child, SIGKILL);
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// Takes what signals there are, waiting for the first. A child's end wakes it too.
void krel_monitor_c::take_signals(pid_t child, uint64_t wait_ms) {
  sigset_t signals = monitor_signals();
  struct timespec wait = {static_cast<time_t>(wait_ms / 1000), static_cast<long>(wait_ms % 1000 * k_ms)};
  for (;;) {
    int signal = sigtimedwait(&signals, nullptr, &wait);
    wait = {0, 0};
    if (signal < 0) return;
    if (signal == SIGHUP) {
      krel_log_reopen_all();
      if (child > 0) kill(child, SIGHUP);
    } else if (signal != SIGCHLD && !m_stopping) {
      m_stopping = true;
      m_stopping_since_ns = krel_gethrtime();
      if (child > 0) kill(child, SIGTERM);
    }
  }
}

void krel_monitor_c::run_glider(pid_t child, const char *why) {
  if (m_options.glider.empty()) return;
  std::string pid_text = std::to_string(child), why_text = why;
  char *argv[] = {m_options.glider.data(), pid_text.data(), why_text.data(), nullptr};
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t glider = 0;
  int failed = posix_spawn(&glider, m_options.glider.c_str(), nullptr, &attributes, argv, environ);
  posix_spawnattr_destroy(&attributes);
  int status = 0;
  if (failed != 0) {
    say(krel_error, fmt::format("cannot run glider '{}': {}", m_options.glider, std::strerror(failed)));
  } else if (!wait_for(glider, k_glider_ms, &status)) {
    say(krel_error, fmt::format("glider '{}' takes too long: killing it", m_options.glider));
    kill(glider, SIGKILL);
    (void)wait_for(glider, k_glider_ms, &status);
  }
}

// The monitor's own result, or none when the child is to be started again.
std::optional<int> krel_monitor_c::result_of(pid_t child, const end_t &end) {
  bool exited = WIFEXITED(end.status);
  int status = exited ? WEXITSTATUS(end.status) : 1;
  if (exited && status == 0) {
    say(krel_notice, fmt::format("child {} has ended", child));
    return 0;
  }
  if (m_stopping) {
    say(krel_error, fmt::format("child {} {} while it was to end", child, how_it_ended(end.status)));
    return status;
  }
  if (exited && !m_beat->started) {
    say(krel_error, fmt::format("child {} {} before it had started; not starting it again", child,
                                how_it_ended(end.status)));
    return status;
  }
  return std::nullopt;
}

// False when asked to stop meanwhile.
bool krel_monitor_c::pause(uint64_t ms) {
  uint64_t until_ns = krel_gethrtime() + ms * k_ms;
  for (;;) {
    uint64_t now_ns = krel_gethrtime();
    if (m_stopping) return false;
    if (now_ns >= until_ns) return true;
    take_signals(0, std::min((until_ns - now_ns) / k_ms + 1, k_look_every_ms));
  }
}
