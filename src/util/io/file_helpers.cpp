#include "util/io/file_helpers.h"

#include <filesystem>

#include "platform/krel/base/krel_log.h"

namespace util::io {

namespace {

krel_log_stream_t *mkdir_log() {
  static krel_log_stream_t *const stream = krel_log_stream_find("debug/mkdir");
  return stream;
}

std::error_code make_directory(const std::string &path, mode_t permissions, files_c &files) {
  const std::error_code error = files.mkdir(path, permissions);
  if (error != std::errc::file_exists) return error;
  struct stat st;
  if (const std::error_code unseen = files.stat(path, &st)) return unseen;
  return S_ISDIR(st.st_mode) ? std::error_code() : std::make_error_code(std::errc::not_a_directory);
}

// The first of the names that does not exist; `name` gives the one to try n-th, from 0.
template <typename F>
std::error_code first_free(files_c &files, F &&name, std::string *out) {
  for (uint64_t n = 0;; ++n) {
    *out = name(n);
    struct stat st;
    const std::error_code error = files.stat(*out, &st);
    if (error == std::errc::no_such_file_or_directory) return {};
    if (error) return error;
  }
}

}  // namespace

std::error_code mkdir_for_file(const std::string &path, mode_t permissions, files_c &files) {
  const std::string whole = path.substr(0, path.rfind('/') + 1);
  struct stat st;
  if (whole.empty() || (!files.stat(whole, &st) && S_ISDIR(st.st_mode))) return {};
  for (size_t slash = whole.find('/', 1); slash != std::string::npos; slash = whole.find('/', slash + 1)) {
    if (whole[slash - 1] == '/') continue;
    if (const std::error_code error = make_directory(whole.substr(0, slash), permissions, files)) {
      krel_log(mkdir_log(), "mkdir for file(%s) -> %s\n", path.c_str(), error.message().c_str());
      return error;
    }
  }
  return {};
}

std::error_code create_empty_file(const std::string &path, files_c &files) {
  std::unique_ptr<file_c> file;
  if (const std::error_code error = files.open(path, open_mode_e::replace, &file)) return error;
  return file->close();
}

std::error_code resize_file(const std::string &path, uint64_t size, files_c &files) {
  std::unique_ptr<file_c> file;
  if (const std::error_code error = files.open(path, open_mode_e::write, &file)) return error;
  if (const std::error_code error = file->truncate(size)) return error;
  return file->close();
}

std::error_code create_or_resize_file(const std::string &path, uint64_t size, files_c &files) {
  const std::error_code resized = resize_file(path, size, files);
  if (resized != std::errc::no_such_file_or_directory) return resized;
  if (const std::error_code error = mkdir_for_file(path, 0755, files)) return error;
  if (const std::error_code error = create_empty_file(path, files)) return error;
  return resize_file(path, size, files);
}

std::pair<std::error_code, std::string> rename_for_delete(const std::string &path, files_c &files) {
  std::string name;
  std::error_code error = first_free(
      files, [&](uint64_t n) { return path + ".deleting" + (n ? "-" + std::to_string(n) : ""); }, &name);
  if (!error) error = files.rename(path, name);
  return {error, std::move(name)};
}

backup_result_t make_backup(const std::string &path, bool rename) {
  files_c &files = system_files();
  const std::string backup = path + "_bak";
  if (files.exists(backup)) {
    std::string away;
    std::error_code error = first_free(
        files, [&](uint64_t n) { return backup + "." + std::to_string(n + 1); }, &away);
    if (!error) error = files.rename(backup, away);
    if (error) return {error, "Unable to rename existing backup for shard: " + error.message()};
  }
  std::error_code error;
  if (rename) {
    error = files.rename(path, backup);
  } else {
    const std::string partial = backup + ".partial";
    std::filesystem::remove_all(partial, error);
    if (!error) std::filesystem::copy(path, partial, std::filesystem::copy_options::recursive, error);
    if (!error) error = files.rename(partial, backup);
    std::error_code ignored;
    if (error) std::filesystem::remove_all(partial, ignored);
  }
  if (error) return {error, "Unable to make a backup copy for shard:" + error.message()};
  return {};
}

}  // namespace util::io
