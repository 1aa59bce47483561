#include "util/io/mmap_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace util::io {

mmap_file_c::~mmap_file_c() {
  close();
}

mmap_file_c::mmap_file_c(mmap_file_c &&other) noexcept
    : _data(std::exchange(other._data, nullptr)), _size(std::exchange(other._size, 0)) {}

mmap_file_c &mmap_file_c::operator=(mmap_file_c &&other) noexcept {
  if (this != &other) {
    close();
    _data = std::exchange(other._data, nullptr);
    _size = std::exchange(other._size, 0);
  }
  return *this;
}

std::error_code mmap_file_c::open(const std::string &path) {
  close();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {errno, std::generic_category()};
  int error = 0;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    error = errno;
  } else if (!S_ISREG(st.st_mode)) {
    error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  } else if (st.st_size > 0) {
    void *data = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED) {
      error = errno;
    } else {
      _data = static_cast<std::byte *>(data);
      _size = static_cast<size_t>(st.st_size);
    }
  }
  ::close(fd);
  return {error, std::generic_category()};
}

void mmap_file_c::close() {
  if (_data) ::munmap(_data, _size);
  _data = nullptr;
  _size = 0;
}

}  // namespace util::io
