#pragma once
// The last cumulative histogram of each metric of a shard, kept for the next shard, whose first one is
// differenced against it. One file for a shard and family, a chain of records in the order of the shard's keys:
//   marker (8), surrogate id (8), time in ms (8), size (8), the serialised histogram; numbers in host order.
// A damaged stretch is passed over. One thread at a time.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/tolvllhist/tolvllhist.h"
#include "util/io/files.h"

namespace db::raw {

std::string cumulative_forwarding_path(const std::string &directory, uint64_t shard_start_s, size_t family);

// The preceding shard's file, read forwards: ids must be asked for in the order of keys.
class cumulative_reader_c {
 public:
  explicit cumulative_reader_c(const std::string &path, util::io::files_c &files = util::io::system_files());
  // False: the file has none of this metric.
  bool read(uint64_t surrogate_id, uint64_t *ts_ms, histogram_t *histogram);

 private:
  struct header_t {
    uint64_t marker, surrogate_id, ts_ms, size;
  };
  friend class cumulative_writer_c;
  bool read_at(uint64_t at, void *out, size_t size);
  bool next_header();
  void skip() { m_at += sizeof m_header + m_header.size; }

  std::unique_ptr<util::io::file_c> m_file;  // null: there is none
  uint64_t m_size = 0, m_at = 0;             // of the file; of the header in hand or to be looked for
  bool m_has_header = false;
  header_t m_header = {};
  std::vector<char> m_buffer, m_bytes;
  uint64_t m_buffer_at = 0;
};

// This shard's file. It is written beside its place and gets its name when the family is whole.
class cumulative_writer_c {
 public:
  // resume_at: what the file holds of this metric and those behind it is written anew; 0: all of it.
  cumulative_writer_c(const std::string &path, uint64_t resume_at,
                      util::io::files_c &files = util::io::system_files());
  // In the hands of the system when it returns. False, and a line in the log, when the disk refuses.
  bool write(uint64_t surrogate_id, uint64_t ts_ms, const histogram_t *histogram);
  // *changed: the file differs from what was there before.
  bool finish(bool *changed);

 private:
  bool succeeded(const std::error_code &code);

  util::io::files_c &m_files;
  const std::string m_path, m_tmp_path;
  std::unique_ptr<util::io::file_c> m_file;
  std::string m_record;
};

}  // namespace db::raw
