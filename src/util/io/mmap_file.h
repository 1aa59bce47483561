#pragma once
// A read-only mapping of a whole file. The mapping shows the file as it is: who cuts the file short makes
// reads beyond its new end fault.

#include <cstddef>
#include <span>
#include <string>
#include <system_error>

namespace util::io {

class mmap_file_c {
 public:
  mmap_file_c() = default;
  ~mmap_file_c();
  mmap_file_c(mmap_file_c &&other) noexcept;
  mmap_file_c &operator=(mmap_file_c &&other) noexcept;
  mmap_file_c(const mmap_file_c &) = delete;
  mmap_file_c &operator=(const mmap_file_c &) = delete;

  // Replaces what was mapped. An empty file gives an open mapping of size 0; on failure nothing is mapped.
  [[nodiscard]] std::error_code open(const std::string &path);
  void close();

  const std::byte *data() const { return _data; }
  size_t size() const { return _size; }
  std::span<const std::byte> bytes() const { return {_data, _size}; }

 private:
  std::byte *_data = nullptr;
  size_t _size = 0;
};

}  // namespace util::io
