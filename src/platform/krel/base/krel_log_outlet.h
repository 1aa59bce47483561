#pragma once
// Where log lines go: standard error, a descriptor, or a file that is appended to. Not thread-safe;
// the log calls an outlet under its output mutex.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

class krel_log_outlet_c {
 public:
  // Null with the reason when the file cannot be opened. path "-" is standard error.
  static std::unique_ptr<krel_log_outlet_c> open(const std::string &path, uint64_t rotate_seconds,
                                                 uint64_t retain_seconds, std::string *error);
  static std::unique_ptr<krel_log_outlet_c> on_fd(int fd);
  ~krel_log_outlet_c();
  krel_log_outlet_c(const krel_log_outlet_c &) = delete;
  krel_log_outlet_c &operator=(const krel_log_outlet_c &) = delete;

  // Writes whole lines. What a full disk refuses goes to standard error.
  void write(std::string_view lines);
  // Keeps the open file when the path cannot be opened again.
  void reopen();
  // Renames the file away and starts a new one when it is older than rotate_seconds.
  void rotate_if_due(int64_t now_s);
  void sync();  // to the disk
  const std::string &path() const { return m_path; }

 private:
  krel_log_outlet_c() = default;
  void remove_expired(int64_t now_s) const;

  std::string m_path;  // empty: not a file
  int m_fd = -1;
  int64_t m_opened_s = 0;
  uint64_t m_rotate_seconds = 0;
  uint64_t m_retain_seconds = 0;
};
