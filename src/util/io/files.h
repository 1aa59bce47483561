#pragma once
// The file layer: every file that this program writes by itself (surrogate files, progress and state
// files, topology) is written through files_c, so that tests can break the disk.
//
// Threads: files_c is safe from any thread. One file_c belongs to one thread at a time, except that
// pread may run beside anything. All calls block on the disk: not for loop threads.
// Errors: an empty error_code is success; otherwise the system's errno in the generic category.
// Durability: bytes survive a crash after fsync or fdatasync of their file, and a name (created, renamed,
// removed) after sync_directory of the directory it is in. After a failed fsync the unsynced bytes of that
// file must be taken for lost: write them again, to a new file.

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace util::io {

class file_c {
 public:
  virtual ~file_c() = default;  // closes; what close would report is then lost
  // Reads up to `size` bytes; *got is fewer only at the end of the file.
  [[nodiscard]] virtual std::error_code pread(void *buffer, size_t size, uint64_t offset, size_t *got) = 0;
  // Write all the bytes or fail; on failure any part of them may be in the file.
  [[nodiscard]] virtual std::error_code pwrite(const void *bytes, size_t size, uint64_t offset) = 0;
  [[nodiscard]] virtual std::error_code append(const void *bytes, size_t size) = 0;  // at the end of the file
  [[nodiscard]] virtual std::error_code truncate(uint64_t size) = 0;                 // grows with zeros, too
  [[nodiscard]] virtual std::error_code fsync() = 0;
  [[nodiscard]] virtual std::error_code fdatasync() = 0;  // bytes and size, not times
  [[nodiscard]] virtual std::error_code size(uint64_t *out) = 0;
  [[nodiscard]] virtual std::error_code close() = 0;  // once; only the destructor may follow
};

enum class open_mode_e {
  read,        // must exist
  write,       // must exist; read and write
  create,      // made empty when missing, else opened as it is; read and write
  create_new,  // must not exist; read and write
  replace,     // made, or cut to nothing; read and write
};

class files_c {
 public:
  virtual ~files_c() = default;
  [[nodiscard]] virtual std::error_code open(const std::string &path, open_mode_e mode,
                                             std::unique_ptr<file_c> *out, mode_t permissions = 0644) = 0;
  [[nodiscard]] virtual std::error_code rename(const std::string &from, const std::string &to) = 0;  // replaces
  [[nodiscard]] virtual std::error_code unlink(const std::string &path) = 0;
  [[nodiscard]] virtual std::error_code mkdir(const std::string &path, mode_t permissions = 0755) = 0;
  [[nodiscard]] virtual std::error_code rmdir(const std::string &path) = 0;
  // Names in a directory without "." and "..", sorted.
  [[nodiscard]] virtual std::error_code list(const std::string &path, std::vector<std::string> *names) = 0;
  [[nodiscard]] virtual std::error_code stat(const std::string &path, struct stat *out) = 0;
  [[nodiscard]] virtual std::error_code sync_directory(const std::string &path) = 0;

  // On top of the above. read_whole refuses (EFBIG) what is larger than max_size.
  [[nodiscard]] std::error_code read_whole(const std::string &path, std::string *out,
                                           uint64_t max_size = 1ull << 30);
  bool exists(const std::string &path);  // false also when it cannot be told
};

files_c &system_files();  // the production layer; lives for ever

// Puts `bytes` at `path`, whole or not at all, durable on success: writes `path`.tmp, syncs it, renames it
// and syncs the directory. After a failure `path` holds the old or the new bytes. One writer per path.
[[nodiscard]] std::error_code atomic_replace(const std::string &path, std::string_view bytes,
                                             files_c &files = system_files(), mode_t permissions = 0644);

std::string parent_directory(const std::string &path);  // "." when there is none, "/" of "/x"

}  // namespace util::io
