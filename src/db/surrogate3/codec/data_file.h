#pragma once
// A data file of the surrogate database: its name and its mapping.

#include <cstdint>
#include <span>
#include <string>

#include "db/surrogate/surrogate.h"
#include "util/io/mmap_file.h"

namespace db::surrogate3 {

using surrogate::spec_e;

struct data_file_descriptor_t {
  uint64_t file_id = 0;  // a larger id is newer data
  std::string name;      // full path
  size_t length = 0;     // bytes
  spec_e spec = surrogate::metadata;

  bool operator<(const data_file_descriptor_t &other) const { return file_id < other.file_id; }
};

// One mapped file. Files never change once they are written, so any thread may read.
class encoded_data_file_c {
 public:
  encoded_data_file_c() = default;
  explicit encoded_data_file_c(data_file_descriptor_t data_file);  // false when it cannot be mapped
  // Of bytes that someone else keeps for as long; aligned to 8.
  encoded_data_file_c(data_file_descriptor_t data_file, std::span<const uint8_t> bytes);

  explicit operator bool() const { return data() != nullptr; }
  const uint8_t *data() const { return _bytes.data(); }
  size_t size() const { return _bytes.size(); }
  void close();
  const data_file_descriptor_t &get_data_file_descriptor() const { return _data_file; }
  const util::io::mmap_file_c &get_mmaped_file() const { return _mmaped_file; }
  // Lets the pages go from this process's memory; later reads bring them back. Any thread.
  void drop_resident_pages() const;

 private:
  data_file_descriptor_t _data_file;
  util::io::mmap_file_c _mmaped_file;
  std::span<const uint8_t> _bytes;
};

}  // namespace db::surrogate3
