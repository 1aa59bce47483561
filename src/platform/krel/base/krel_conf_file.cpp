#include "platform/krel/base/krel_conf_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

class fd_c {
 public:
  explicit fd_c(int fd) : m_fd(fd) {}
  ~fd_c() {
    if (m_fd >= 0) ::close(m_fd);
  }
  fd_c(const fd_c &) = delete;
  fd_c &operator=(const fd_c &) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool failed(const char *doing, const std::string &path, std::string *error) {
  *error = fmt::format("cannot {} '{}': {}", doing, path, std::strerror(errno));
  return false;
}

}  // namespace

std::string krel_conf_absolute(const std::string &path) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::weakly_canonical(std::filesystem::absolute(path, ec), ec);
  return ec ? path : absolute.string();
}

std::string krel_conf_beside(const std::string &path, const std::string &file) {
  return (std::filesystem::path(path).parent_path() / file).string();
}

bool krel_conf_read_file(const std::string &path, size_t max_bytes, std::string *out, std::string *error) {
  fd_c fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) return failed("read", path, error);
  if (!S_ISREG(st.st_mode)) {
    *error = fmt::format("cannot read '{}': not a regular file", path);
    return false;
  }
  out->clear();
  char block[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), block, sizeof(block));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return failed("read", path, error);
    if (n == 0) return true;
    out->append(block, static_cast<size_t>(n));
    if (out->size() > max_bytes) {
      *error = fmt::format("'{}' has more than {} bytes", path, max_bytes);
      return false;
    }
  }
}

bool krel_conf_replace_file(const std::string &path, std::string_view text, std::string *error) {
  std::string temporary = fmt::format("{}.new.{}", path, getpid());
  (void)::unlink(temporary.c_str());
  {
    fd_c fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) return failed("write", temporary, error);
    struct stat st;
    mode_t mode = 0644;
    if (::stat(path.c_str(), &st) == 0) {
      mode = st.st_mode & 07777;
      (void)!::fchown(fd.get(), st.st_uid, st.st_gid);  // only root may give files away
    }
    if (::fchmod(fd.get(), mode) != 0 || !write_all(fd.get(), text) || ::fsync(fd.get()) != 0) {
      failed("write", temporary, error);
      (void)::unlink(temporary.c_str());
      return false;
    }
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    failed("replace", path, error);
    (void)::unlink(temporary.c_str());
    return false;
  }
  std::string directory = std::filesystem::path(path).parent_path().string();
  fd_c dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() < 0 || ::fsync(dir.get()) != 0) return failed("sync", directory, error);
  return true;
}
