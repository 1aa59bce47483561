#pragma once
// Takes a log stream's lines for a test's life: switched on, kept from the console. Afterwards the stream
// writes to standard error, on or off as it was.

#include <sys/mman.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "platform/krel/base/krel_log.h"

class log_capture_c {
 public:
  explicit log_capture_c(std::string stream)
      : _name(std::move(stream)),
        _was_on(krel_log_has_material_output(krel_log_stream_find(_name.c_str()))),
        _fd(memfd_create("log", MFD_CLOEXEC)) {
    krel_assert(_fd >= 0);
    krel_log_stream_new_on_fd(_name.c_str(), _fd);
  }
  ~log_capture_c() {
    krel_log_stream_new_on_fd(_name.c_str(), STDERR_FILENO);
    krel_log_stream_switch(_name.c_str(), _was_on);
    close(_fd);
  }
  log_capture_c(const log_capture_c &) = delete;
  log_capture_c &operator=(const log_capture_c &) = delete;

  // Everything so far, with the time, stream and thread in front of each message.
  std::string text() const {
    std::string all(static_cast<size_t>(lseek(_fd, 0, SEEK_END)), '\0');
    all.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(_fd, all.data(), all.size(), 0))));
    return all;
  }
  // The messages alone.
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);) {
      size_t at = 0;
      for (int i = 0; i < 3 && at != std::string::npos; ++i) at = line.find("] ", i == 0 ? 0 : at + 2);
      out.push_back(at == std::string::npos ? line : line.substr(at + 2));
    }
    return out;
  }
  bool contains(const std::string &part) const { return text().find(part) != std::string::npos; }

 private:
  const std::string _name;
  const bool _was_on;
  const int _fd;
};
