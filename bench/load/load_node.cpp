#include "load_node.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

double process_cpu_seconds(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 1)));
  std::string skipped;
  for (int i = 0; i < 11; i++) fields >> skipped;  // state up to cmajflt
  double user = 0, system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

uint64_t process_peak_bytes(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);)
    if (line.rfind("VmHWM:", 0) == 0) return strtoull(line.c_str() + 6, nullptr, 10) * 1024;
  return 0;
}

uint64_t directory_bytes(const std::string &path) {
  namespace fs = std::filesystem;
  uint64_t sum = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, error), end;
       !error && it != end; it.increment(error)) {
    struct stat st;
    if (lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode))
      sum += static_cast<uint64_t>(std::min<int64_t>(st.st_size, st.st_blocks * 512));
  }
  return sum;
}
