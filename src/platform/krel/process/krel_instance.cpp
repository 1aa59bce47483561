#include "platform/krel/process/krel_instance.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_util.h"

namespace {

// A lock of the open file, not of the process: a forked child keeps it, and asking for it takes nothing.
struct flock whole_file(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

int lock(int fd, bool wait) {
  struct flock whole = whole_file(F_WRLCK);
  int failed;
  do {
    failed = ::fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &whole);
  } while (failed != 0 && errno == EINTR);
  return failed;
}

bool is_locked(int fd) {
  struct flock whole = whole_file(F_WRLCK);
  return ::fcntl(fd, F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

// By way of its directory: a path may be as long as a directory's, and the file's name behind it.
int open_file(const std::string &path, int flags) {
  std::filesystem::path p(path);
  std::string directory = p.has_parent_path() ? p.parent_path().string() : ".";
  int dir = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return -1;
  int fd = ::openat(dir, p.filename().c_str(), flags | O_CLOEXEC | O_NOCTTY, 0644);
  int kept = errno;
  ::close(dir);
  errno = kept;
  return fd;
}

pid_t read_pid(int fd) {
  char text[32];
  ssize_t n = ::pread(fd, text, sizeof(text), 0);
  if (n <= 0) return -1;
  std::string_view digits(text, static_cast<size_t>(n));
  digits = digits.substr(0, digits.find('\n'));
  uint64_t pid;
  if (!krel_parse_uint64(digits, &pid) || pid == 0 || pid > INT32_MAX) return -1;
  return static_cast<pid_t>(pid);
}

}  // namespace

krel_instance_c::~krel_instance_c() {
  if (m_fd >= 0) ::close(m_fd);  // gives the lock up once no forked process has it open either
}

krel_instance_c::outcome_e krel_instance_c::take(const std::string &path, bool wait, std::string *error) {
  std::error_code ec;
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  int fd = open_file(path, O_RDWR | O_CREAT);
  if (fd < 0) {
    *error = fmt::format("cannot open pid file '{}': {}", path, std::strerror(errno));
    return outcome_e::failed;
  }
  if (lock(fd, wait) == 0) {
    m_fd = fd;
    return outcome_e::taken;
  }
  bool held = errno == EAGAIN || errno == EACCES;
  *error = held ? fmt::format("another instance is running (pid {}, pid file '{}')", read_pid(fd), path)
                : fmt::format("cannot lock pid file '{}': {}", path, std::strerror(errno));
  ::close(fd);
  return held ? outcome_e::held_by_another : outcome_e::failed;
}

bool krel_instance_c::write_pid(pid_t pid) {
  std::string text = fmt::format("{}\n", pid);
  return ::pwrite(m_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
         ::ftruncate(m_fd, static_cast<off_t>(text.size())) == 0;
}

pid_t krel_instance_c::holder(const std::string &path) {
  int fd = open_file(path, O_RDONLY);
  if (fd < 0) return 0;
  pid_t pid = is_locked(fd) ? read_pid(fd) : 0;
  ::close(fd);
  return pid;
}

std::string krel_instance_path(const char *app) {
  std::string path = fmt::format("{}/{}.pid", krel_conf_local_state_directory(app), app);
  krel_conf_get_string(KREL_CONF_ROOT, "//@pidfile", &path);
  return path;
}
