#include "db/surrogate3/codec/data_file.h"

#include <sys/mman.h>

#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

encoded_data_file_c::encoded_data_file_c(data_file_descriptor_t data_file) : _data_file(std::move(data_file)) {
  if (const std::error_code error = _mmaped_file.open(_data_file.name))
    krel_log(krel_error, "Unable to map file %s: %s\n", _data_file.name.c_str(), error.message().c_str());
  _bytes = {reinterpret_cast<const uint8_t *>(_mmaped_file.data()), _mmaped_file.size()};
  _data_file.length = _bytes.size();
}

encoded_data_file_c::encoded_data_file_c(data_file_descriptor_t data_file, std::span<const uint8_t> bytes)
    : _data_file(std::move(data_file)), _bytes(bytes) {
  _data_file.length = bytes.size();
}

void encoded_data_file_c::close() {
  _mmaped_file.close();
  _bytes = {};
}

void encoded_data_file_c::drop_resident_pages() const {
  // of a shared, unchanged file mapping: only the page table entries go
  if (_mmaped_file.data()) ::madvise(const_cast<uint8_t *>(data()), size(), MADV_DONTNEED);
}

}  // namespace db::surrogate3
