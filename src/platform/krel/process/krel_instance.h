#pragma once
// The instance lock: an advisory lock on the pid file, held by every process of the instance until the
// last of them has gone.

#include <sys/types.h>

#include <string>

class krel_instance_c {
 public:
  enum class outcome_e { taken, held_by_another, failed };

  krel_instance_c() = default;
  ~krel_instance_c();
  krel_instance_c(const krel_instance_c &) = delete;
  krel_instance_c &operator=(const krel_instance_c &) = delete;

  // Makes the file and its directory when missing. wait: blocks while another instance holds it.
  outcome_e take(const std::string &path, bool wait, std::string *error);
  bool write_pid(pid_t pid);  // into the file that was taken

  // The pid in the file when some instance holds the lock, else 0; -1 when it is held without a pid.
  static pid_t holder(const std::string &path);

 private:
  int m_fd = -1;
};

// `//@pidfile` of the configuration in force, else "<local state>/<app>.pid".
std::string krel_instance_path(const char *app);
