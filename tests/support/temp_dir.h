#pragma once
// A directory of its own for a test, removed with all it holds at the end.

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class temp_dir_c {
 public:
  temp_dir_c() {
    const char *base = getenv("TMPDIR");
    _path = std::string(base && *base ? base : "/tmp") + "/velmar_test_XXXXXX";
    if (!mkdtemp(_path.data())) throw std::runtime_error("cannot make " + _path);
  }
  ~temp_dir_c() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  temp_dir_c(const temp_dir_c &) = delete;
  temp_dir_c &operator=(const temp_dir_c &) = delete;

  const std::string &path() const { return _path; }
  std::string operator/(const std::string &name) const { return _path + "/" + name; }

 private:
  std::string _path;
};
