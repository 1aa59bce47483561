#include "platform/krel/base/krel_log_outlet.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace {

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

int open_append(const std::string &path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
}

// A file's age counts from its last rotation, also over a restart: the first line's time is not kept,
// the time of the file's making is near enough, and where the file system lacks it, now.
int64_t birth_of(int fd) {
  struct statx sx;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_BTIME | STATX_SIZE, &sx) == 0 && (sx.stx_mask & STATX_BTIME) &&
      sx.stx_size > 0)
    return sx.stx_btime.tv_sec;
  return std::time(nullptr);
}

}  // namespace

std::unique_ptr<krel_log_outlet_c> krel_log_outlet_c::open(const std::string &path, uint64_t rotate_seconds,
                                                           uint64_t retain_seconds, std::string *error) {
  if (path == "-") return on_fd(STDERR_FILENO);
  int fd = open_append(path);
  if (fd < 0) {
    *error = fmt::format("cannot open log file '{}': {}", path, std::strerror(errno));
    return nullptr;
  }
  std::unique_ptr<krel_log_outlet_c> outlet(new krel_log_outlet_c);
  outlet->m_path = path;
  outlet->m_fd = fd;
  outlet->m_opened_s = birth_of(fd);
  outlet->m_rotate_seconds = rotate_seconds;
  outlet->m_retain_seconds = retain_seconds;
  return outlet;
}

std::unique_ptr<krel_log_outlet_c> krel_log_outlet_c::on_fd(int fd) {
  std::unique_ptr<krel_log_outlet_c> outlet(new krel_log_outlet_c);
  outlet->m_fd = fd;
  return outlet;
}

krel_log_outlet_c::~krel_log_outlet_c() {
  if (!m_path.empty()) ::close(m_fd);
}

void krel_log_outlet_c::write(std::string_view lines) {
  if (!write_all(m_fd, lines) && m_fd != STDERR_FILENO) (void)write_all(STDERR_FILENO, lines);
}

void krel_log_outlet_c::reopen() {
  if (m_path.empty()) return;
  int fd = open_append(m_path);
  if (fd < 0) return;
  ::close(m_fd);
  m_fd = fd;
  m_opened_s = birth_of(fd);
}

void krel_log_outlet_c::rotate_if_due(int64_t now_s) {
  if (m_path.empty() || m_rotate_seconds == 0) return;
  if (now_s < m_opened_s || static_cast<uint64_t>(now_s - m_opened_s) < m_rotate_seconds) return;
  std::string away = fmt::format("{}.{}", m_path, now_s);
  if (::access(away.c_str(), F_OK) != 0) (void)::rename(m_path.c_str(), away.c_str());
  reopen();
  m_opened_s = now_s;
  remove_expired(now_s);
}

void krel_log_outlet_c::remove_expired(int64_t now_s) const {
  if (m_retain_seconds == 0) return;
  std::filesystem::path path(m_path);
  std::string prefix = path.filename().string() + ".";
  std::filesystem::path dir = path.has_parent_path() ? path.parent_path() : ".";
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (!name.starts_with(prefix)) continue;
    int64_t rotated_s = 0;
    const char *last = name.data() + name.size();
    auto [rest, err] = std::from_chars(name.data() + prefix.size(), last, rotated_s);
    if (err != std::errc() || rest != last || rotated_s < 0 || rotated_s > now_s) continue;
    std::error_code ignored;
    if (static_cast<uint64_t>(now_s - rotated_s) >= m_retain_seconds)
      std::filesystem::remove(it->path(), ignored);
  }
}

void krel_log_outlet_c::sync() {
  if (!m_path.empty()) (void)::fdatasync(m_fd);
}
