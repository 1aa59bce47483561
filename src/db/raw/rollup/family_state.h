#pragma once
// How far the rollup of one family of a shard is, in two small files of the shard's directory:
// ".<family>_state", the id of the metric last completed (8 bytes, overwritten in place), and
// ".<family>_state.done", which is there once the family is finished. One thread at a time.

#include <cstdint>
#include <memory>
#include <string>

#include "util/io/files.h"

namespace db::raw {

class family_state_c {
 public:
  family_state_c(const std::string &shard_dir, size_t family,
                 util::io::files_c &files = util::io::system_files());

  bool is_done() const;
  uint64_t load_last_surrogate();  // 0: none
  // False, and a line in the log, when the disk refuses: a restart then begins further back.
  bool save_last_surrogate(uint64_t surrogate_id);
  bool set_done();

  // Removes the files of all families. A file that stays would let the next pass leave metrics out: fatal.
  static void wipe(const std::string &shard_dir, size_t families,
                   util::io::files_c &files = util::io::system_files());

 private:
  util::io::files_c &m_files;
  const std::string m_path, m_done_path;
  std::unique_ptr<util::io::file_c> m_file;  // opened when first needed
};

}  // namespace db::raw
