#pragma once
// Imported Whisper files: directories of them by check.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "libvelmar/nnt/nnt_multitype.h"
#include "util/io/files.h"
#include "util/metric_locator.h"

namespace velmar::ranged::from::whisper {

struct directory_t {
  std::string path;
  std::array<uint8_t, 16> check_uuid;
  int32_t account_id;
};

// The directories stay as they are once reads begin. Safe from any thread that may block.
class ctx_c {
 public:
  explicit ctx_c(util::io::files_c &files = util::io::system_files()) : m_files(files) {}
  // With the sections //graphite/whisper; a bad one ends the process. Null when there are none.
  static std::unique_ptr<ctx_c> from_conf();

  void add(directory_t directory);  // of two for one check the first stays
  bool covers(const metric_locator_sp &locator) const { return find(locator) != nullptr; }
  // Fills those of `count` zeroed cells of `period` seconds from `start` (seconds) on that the metric's file
  // has. Returns the number of cells up to the last one it has. *error says why a file could not be used.
  size_t whisper_get_range(uint64_t start, const metric_locator_sp &locator, size_t count, unsigned period,
                           nnt_multitype *v, std::string *error) const;

 private:
  struct uuid_hash_t {
    size_t operator()(const std::array<uint8_t, 16> &uuid) const;
  };
  const directory_t *find(const metric_locator_sp &locator) const;

  util::io::files_c &m_files;
  std::unordered_map<std::array<uint8_t, 16>, directory_t, uuid_hash_t> m_directories;
};

}  // namespace velmar::ranged::from::whisper
