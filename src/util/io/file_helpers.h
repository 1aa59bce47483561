#pragma once
// File and directory operations with this program's rules for sizes, backups and deleting. Errors come
// back as codes. None of them syncs; a failure leaves what was done until then. Blocking.

#include <string>
#include <utility>

#include "util/io/files.h"

namespace util::io {

// Makes the missing directories that `path` needs: everything before its last "/". Logs each failure on
// "debug/mkdir".
[[nodiscard]] std::error_code mkdir_for_file(const std::string &path, mode_t permissions = 0755,
                                             files_c &files = system_files());
// An existing file is cut to nothing.
[[nodiscard]] std::error_code create_empty_file(const std::string &path, files_c &files = system_files());
[[nodiscard]] std::error_code resize_file(const std::string &path, uint64_t size,
                                          files_c &files = system_files());
// An existing file keeps its bytes up to `size`; a missing one is made of zeros, with its directories.
[[nodiscard]] std::error_code create_or_resize_file(const std::string &path, uint64_t size,
                                                    files_c &files = system_files());

// Renames to the first free name of path.deleting, path.deleting-1, ... Returns that name.
[[nodiscard]] std::pair<std::error_code, std::string> rename_for_delete(const std::string &path,
                                                                        files_c &files = system_files());

struct backup_result_t {
  std::error_code code;
  std::string text;  // what failed, for a person; empty on success
  explicit operator bool() const { return !code; }
};
// Makes path_bak of a file or directory by renaming (`rename` true) or copying it with all it holds. A
// path_bak that exists is first renamed to the first free path_bak.1, path_bak.2, ... Copies go to a
// temporary name and are complete once they have the name path_bak. On the system's files only.
[[nodiscard]] backup_result_t make_backup(const std::string &path, bool rename);

}  // namespace util::io
