#pragma once
// The monitor: forks the child, watches it, restarts it. Runs in a process with one thread.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

struct krel_beat_t;

struct krel_restart_limits_t {
  uint64_t first_ms = 1000;  // pause before the first restart; it doubles
  uint64_t most_ms = 30000;
  uint64_t short_life_ms = 60000;  // a child that lived longer starts the count again
  int most_short_lives = 5;
};

class krel_restart_policy_c {
 public:
  explicit krel_restart_policy_c(const krel_restart_limits_t &limits) : m_limits(limits) {}
  // The pause before the next start, in milliseconds; none: give up.
  std::optional<uint64_t> after_death(uint64_t lived_ms);
  int short_lives() const { return m_short_lives; }

 private:
  krel_restart_limits_t m_limits;
  int m_short_lives = 0;
};

struct krel_monitor_options_t {
  krel_restart_limits_t restart;
  uint64_t stall_ms = 30000;  // without a beat
  uint64_t stop_ms = 50000;   // for an orderly end, then it is killed
  std::string glider;
};

class krel_monitor_c {
 public:
  explicit krel_monitor_c(krel_monitor_options_t options);
  // Returns the process's exit status once no child runs and none is to be started.
  int run(const std::function<int()> &child_main);

 private:
  struct end_t {
    int status;  // of waitpid
    uint64_t lived_ms;
  };
  pid_t start(const std::function<int()> &child_main);
  end_t watch(pid_t child);
  void take_signals(pid_t child, uint64_t wait_ms);
  bool reaped(pid_t child, int *status);
  bool has_stalled(uint64_t now_ns);
  int kill_stalled(pid_t child);
  void run_glider(pid_t child, const char *why);
  std::optional<int> result_of(pid_t child, const end_t &end);
  bool pause(uint64_t ms);

  krel_monitor_options_t m_options;
  krel_restart_policy_c m_policy;
  krel_beat_t *m_beat;
  bool m_stopping = false;
  uint64_t m_stopping_since_ns = 0;
  uint64_t m_looked_ns = 0;      // the last look at the beat
  uint64_t m_not_before_ns = 0;  // beats missed before then do not count
};

void krel_monitor_wait_for_core_dumps();
