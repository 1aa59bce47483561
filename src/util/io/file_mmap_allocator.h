#pragma once
// Allocation from mapped files: large buffers stay out of the process heap and can be paged out to their
// own files.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace util::mem {

class allocator_c {
 public:
  virtual ~allocator_c() = default;
  virtual void *alloc(size_t size) = 0;  // null when there is no room
  virtual void free(void *address) = 0;  // of alloc of this allocator
};

// One file per allocation below the root directory, which belongs to this allocator alone: files left
// there by a killed process are removed at the start. One thread at a time.
class file_mmap_allocator_c : public allocator_c {
 public:
  explicit file_mmap_allocator_c(std::string root_dir_path);
  ~file_mmap_allocator_c() override;  // unmaps and removes what was not freed
  file_mmap_allocator_c(const file_mmap_allocator_c &) = delete;
  file_mmap_allocator_c &operator=(const file_mmap_allocator_c &) = delete;

  // Zeroed memory, page-aligned. The disk space is reserved: a full disk shows here and not as a fault.
  void *alloc(size_t size) override;
  void free(void *address) override;

 private:
  struct region_t {
    void *address = nullptr;
    size_t size = 0;
    size_t get_size() const { return size; }
  };
  struct file_entry_t {
    std::string path;
    int file = -1;
    region_t region;
  };
  void release(const file_entry_t &entry);

  const std::string _root_dir_path;
  std::map<void *, file_entry_t> _addr_to_file_entry;
  int32_t _generator = 0;
};

}  // namespace util::mem
