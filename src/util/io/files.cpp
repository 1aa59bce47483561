#include "util/io/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace util::io {

namespace {

std::error_code last_error() {
  return {errno, std::generic_category()};
}
std::error_code check(int result) {
  return result == 0 ? std::error_code() : last_error();
}

class system_file_c final : public file_c {
 public:
  explicit system_file_c(int fd) : m_fd(fd) {}
  ~system_file_c() override {
    if (m_fd >= 0) ::close(m_fd);
  }

  std::error_code pread(void *buffer, size_t size, uint64_t offset, size_t *got) override {
    *got = 0;
    while (*got < size) {
      const ssize_t n =
          ::pread(m_fd, static_cast<char *>(buffer) + *got, size - *got, static_cast<off_t>(offset + *got));
      if (n == 0) break;
      if (n < 0) {
        if (errno == EINTR) continue;
        return last_error();
      }
      *got += static_cast<size_t>(n);
    }
    return {};
  }

  std::error_code pwrite(const void *bytes, size_t size, uint64_t offset) override {
    const char *from = static_cast<const char *>(bytes);
    while (size > 0) {
      const ssize_t n = ::pwrite(m_fd, from, size, static_cast<off_t>(offset));
      if (n < 0) {
        if (errno == EINTR) continue;
        return last_error();
      }
      from += n;
      size -= static_cast<size_t>(n);
      offset += static_cast<uint64_t>(n);
    }
    return {};
  }

  std::error_code append(const void *bytes, size_t size) override {
    uint64_t end = 0;
    if (const std::error_code error = this->size(&end)) return error;
    return pwrite(bytes, size, end);
  }

  std::error_code truncate(uint64_t size) override {
    int result;
    do result = ::ftruncate(m_fd, static_cast<off_t>(size));
    while (result != 0 && errno == EINTR);
    return check(result);
  }

  std::error_code fsync() override { return check(::fsync(m_fd)); }
  std::error_code fdatasync() override { return check(::fdatasync(m_fd)); }

  std::error_code size(uint64_t *out) override {
    struct stat st;
    if (::fstat(m_fd, &st) != 0) return last_error();
    *out = static_cast<uint64_t>(st.st_size);
    return {};
  }

  std::error_code close() override {
    const int fd = std::exchange(m_fd, -1);
    if (::close(fd) == 0 || errno == EINTR) return {};  // after EINTR the descriptor is gone all the same
    return last_error();
  }

 private:
  int m_fd;
};

int open_flags(open_mode_e mode) {
  switch (mode) {
    case open_mode_e::read:
      return O_RDONLY;
    case open_mode_e::write:
      return O_RDWR;
    case open_mode_e::create:
      return O_RDWR | O_CREAT;
    case open_mode_e::create_new:
      return O_RDWR | O_CREAT | O_EXCL;
    case open_mode_e::replace:
      return O_RDWR | O_CREAT | O_TRUNC;
  }
  return O_RDONLY;
}

class system_files_c final : public files_c {
 public:
  std::error_code open(const std::string &path, open_mode_e mode, std::unique_ptr<file_c> *out,
                       mode_t permissions) override {
    const int fd = ::open(path.c_str(), open_flags(mode) | O_CLOEXEC, permissions);
    if (fd < 0) return last_error();
    *out = std::make_unique<system_file_c>(fd);
    return {};
  }
  std::error_code rename(const std::string &from, const std::string &to) override {
    return check(::rename(from.c_str(), to.c_str()));
  }
  std::error_code unlink(const std::string &path) override { return check(::unlink(path.c_str())); }
  std::error_code mkdir(const std::string &path, mode_t permissions) override {
    return check(::mkdir(path.c_str(), permissions));
  }
  std::error_code rmdir(const std::string &path) override { return check(::rmdir(path.c_str())); }

  std::error_code list(const std::string &path, std::vector<std::string> *names) override {
    names->clear();
    DIR *dir = ::opendir(path.c_str());
    if (!dir) return last_error();
    errno = 0;
    while (const struct dirent *entry = ::readdir(dir)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names->push_back(entry->d_name);
      errno = 0;
    }
    const int error = errno;
    ::closedir(dir);
    std::sort(names->begin(), names->end());
    return {error, std::generic_category()};
  }

  std::error_code stat(const std::string &path, struct stat *out) override {
    return check(::stat(path.c_str(), out));
  }

  std::error_code sync_directory(const std::string &path) override {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return last_error();
    const std::error_code error = check(::fsync(fd));
    ::close(fd);
    return error;
  }
};

std::error_code write_and_sync(files_c &files, const std::string &path, std::string_view bytes,
                               mode_t permissions) {
  std::unique_ptr<file_c> file;
  if (const std::error_code error = files.open(path, open_mode_e::replace, &file, permissions)) return error;
  if (const std::error_code error = file->pwrite(bytes.data(), bytes.size(), 0)) return error;
  if (const std::error_code error = file->fsync()) return error;
  return file->close();
}

}  // namespace

files_c &system_files() {
  static system_files_c *const files = new system_files_c;
  return *files;
}

std::error_code files_c::read_whole(const std::string &path, std::string *out, uint64_t max_size) {
  std::unique_ptr<file_c> file;
  uint64_t size = 0;
  if (const std::error_code error = open(path, open_mode_e::read, &file)) return error;
  if (const std::error_code error = file->size(&size)) return error;
  if (size > max_size) return std::make_error_code(std::errc::file_too_large);
  out->resize(size);
  size_t got = 0;
  if (const std::error_code error = file->pread(out->data(), size, 0, &got)) return error;
  out->resize(got);
  return {};
}

bool files_c::exists(const std::string &path) {
  struct stat st;
  return !stat(path, &st);
}

std::error_code atomic_replace(const std::string &path, std::string_view bytes, files_c &files,
                               mode_t permissions) {
  const std::string temporary = path + ".tmp";
  std::error_code error = write_and_sync(files, temporary, bytes, permissions);
  if (!error) error = files.rename(temporary, path);
  if (error) {
    [[maybe_unused]] const std::error_code ignored = files.unlink(temporary);
    return error;
  }
  return files.sync_directory(parent_directory(path));
}

std::string parent_directory(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace util::io
