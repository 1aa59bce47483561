#include "util/io/file_mmap_allocator.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"

namespace util::mem {

namespace {

constexpr std::string_view k_suffix = ".mem";
constexpr const char *k_who = "file_mmap_allocator_c:";

std::error_code error_of(int error) {
  return {error, std::generic_category()};
}

void remove_leftovers(const std::string &root) {
  std::vector<std::string> names;
  if (io::system_files().list(root, &names)) return;
  for (const std::string &name : names)
    if (name.ends_with(k_suffix)) ::unlink((root + "/" + name).c_str());
}

}  // namespace

file_mmap_allocator_c::file_mmap_allocator_c(std::string root_dir_path)
    : _root_dir_path(std::move(root_dir_path)) {
  if (io::mkdir_for_file(_root_dir_path + "/"))
    krel_fatal("Unable to create directory %s\n", _root_dir_path.c_str());
  remove_leftovers(_root_dir_path);
}

file_mmap_allocator_c::~file_mmap_allocator_c() {
  for (const auto &[address, entry] : _addr_to_file_entry) release(entry);
}

void *file_mmap_allocator_c::alloc(size_t size) {
  if (size == 0) size = 1;
  file_entry_t fe;
  fe.path = _root_dir_path + "/" + std::to_string(++_generator) + std::string(k_suffix);
  std::error_code error = io::create_or_resize_file(fe.path, size);
  if (!error) {
    fe.file = ::open(fe.path.c_str(), O_RDWR | O_CLOEXEC);
    if (fe.file < 0) error = error_of(errno);
  }
  if (!error) error = error_of(::posix_fallocate(fe.file, 0, static_cast<off_t>(size)));
  if (!error) {
    void *address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fe.file, 0);
    if (address == MAP_FAILED)
      error = error_of(errno);
    else
      fe.region = {address, size};
  }
  if (error) {
    krel_ex_log(krel_error, "{} Unable to create file {}: {}/{}\n", k_who, fe.path, error.value(),
                error.message());
    if (fe.file >= 0) ::close(fe.file);
    ::unlink(fe.path.c_str());
    return nullptr;
  }
  krel_assert(fe.region.get_size() >= size);
  void *const address = fe.region.address;
  _addr_to_file_entry.emplace(address, std::move(fe));
  return address;
}

void file_mmap_allocator_c::free(void *address) {
  if (!address) return;
  const auto found = _addr_to_file_entry.find(address);
  krel_assert(found != _addr_to_file_entry.end());
  release(found->second);
  _addr_to_file_entry.erase(found);
}

void file_mmap_allocator_c::release(const file_entry_t &entry) {
  ::munmap(entry.region.address, entry.region.size);
  ::close(entry.file);
  if (::unlink(entry.path.c_str()) != 0) {
    const std::error_code error = error_of(errno);
    krel_fatal("%s Cannot remove file %s: %d/%s\n", k_who, entry.path.c_str(), error.value(),
               error.message().c_str());
  }
}

}  // namespace util::mem
