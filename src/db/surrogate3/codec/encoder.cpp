#include "db/surrogate3/codec/encoder.h"

#include <cstdlib>

#include <fmt/printf.h>

#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"

namespace db::surrogate3 {

namespace {

// What ends the process when it happens to data that someone waits for, with the word it is told by.
struct write_failure_t {
  const char *word = nullptr;  // null: none
  std::string text;
};

write_failure_t open_for_writing(util::io::files_c &files, const std::string &path,
                                 std::unique_ptr<util::io::file_c> *out) {
  std::error_code error = files.open(path, util::io::open_mode_e::replace, out);
  if (!error) return {};
  if (const std::error_code failed = util::io::mkdir_for_file(path, 0755, files))
    return {"TERMINATE",
            fmt::sprintf("Unable to create parent directory for file %s. %s", path, failed.message())};
  error = files.open(path, util::io::open_mode_e::replace, out);
  if (!error) return {};
  return {"TERMINATE", fmt::sprintf("Unable to open file for writing %s", path)};
}

// A name is durable when its directory is synced, and so is each directory that was made for it.
std::error_code sync_names(const file_selection_strategy_c &fss, spec_e spec) {
  const std::string directory = fss.get_directory(spec);
  return fss.get_files_layer().sync_directory(directory);
}

write_failure_t write_file(const file_selection_strategy_c &fss, spec_e spec, const std::string &path,
                           std::span<const uint8_t> bytes) {
  std::unique_ptr<util::io::file_c> file;
  if (write_failure_t failure = open_for_writing(fss.get_files_layer(), path, &file); failure.word)
    return failure;
  if (const std::error_code error = file->append(bytes.data(), bytes.size())) {
    uint64_t written = 0;
    if (file->size(&written)) written = 0;
    return {
        "FATAL",
        fmt::sprintf("Unable to write all data to file %s. %zu written vs %zu expected.  Error from system: %s",
                     path, static_cast<size_t>(written), bytes.size(), error.message())};
  }
  std::error_code error = file->fsync();
  if (!error) error = file->close();
  if (!error) error = sync_names(fss, spec);
  if (error)
    return {"FATAL", fmt::sprintf("Unable to sync file %s. Error from system: %s", path, error.message())};
  return {};
}

}  // namespace

void encoder_accessor_c::write_data_to_file(const file_selection_strategy_c &fss, spec_e spec,
                                            uint64_t file_id) const {
  const write_failure_t failure = write_file(fss, spec, fss.gen_file_name(spec, file_id), buffer());
  if (!failure.word) return;
  krel_log_go_synch();
  krel_log(krel_error, "[%s] %s\n", failure.word, failure.text.c_str());
  abort();
}

std::string encoder_accessor_c::try_write_data_to_file(const file_selection_strategy_c &fss, spec_e spec,
                                                       uint64_t file_id) const {
  return write_file(fss, spec, fss.gen_file_name(spec, file_id), buffer()).text;
}

}  // namespace db::surrogate3
