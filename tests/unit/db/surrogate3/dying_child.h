#pragma once
// Runs something in a child process that may end itself, on a disk whose power goes with it: what the
// directory holds afterwards is what a restart would find.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "support/fault_files.h"

class dying_child_c {
 public:
  using report_f = std::function<void(const std::string &line)>;
  // The lines that `run` reported before it returned or the process aborted; *finished tells which.
  static std::vector<std::string> run(
      const std::string &root, uint64_t seed, crash_loss_e loss,
      const std::function<void(fault_files_c &files, const report_f &report)> &run, bool *finished) {
    int pipe_fd[2];
    krel_assert(pipe(pipe_fd) == 0);
    const pid_t child = fork();
    krel_assert(child >= 0);
    if (child == 0) {
      ::close(pipe_fd[0]);
      be_child(root, seed, loss, run, pipe_fd[1]);
    }
    ::close(pipe_fd[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(pipe_fd[0], buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<size_t>(got));
    ::close(pipe_fd[0]);
    int status = 0;
    waitpid(child, &status, 0);
    krel_assert(WIFEXITED(status) && (WEXITSTATUS(status) == FINISHED || WEXITSTATUS(status) == DIED));
    *finished = WEXITSTATUS(status) == FINISHED;
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  static constexpr int FINISHED = 0, DIED = 33;

  [[noreturn]] static void be_child(const std::string &root, uint64_t seed, crash_loss_e loss,
                                    const std::function<void(fault_files_c &, const report_f &)> &run, int fd) {
    krel_log_stream_new_on_fd("error", ::open("/dev/null", O_WRONLY));
    krel_log_stream_new_on_fd("notice", ::open("/dev/null", O_WRONLY));
    s_files = new fault_files_c(root, seed);
    s_loss = loss;
    // the thread that aborts holds no lock of the file layer: its call has returned with an error
    signal(SIGABRT, [](int) {
      s_files->crash(s_loss);
      _exit(DIED);
    });
    run(*s_files, [fd](const std::string &line) {
      const std::string text = line + "\n";
      krel_assert(::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    });
    s_files->crash(s_loss);
    _exit(FINISHED);
  }

  inline static fault_files_c *s_files = nullptr;
  inline static crash_loss_e s_loss = crash_loss_e::random;
};
