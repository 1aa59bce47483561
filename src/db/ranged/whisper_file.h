#pragma once
// A Whisper database: one metric's averages in archives, each a ring of points at a step of its own. All
// numbers are big-endian. The file comes from elsewhere: nothing in it is trusted.
//
//   header, 16 bytes: aggregation (1: average), longest retention, x-files factor, number of archives
//   per archive, 12 bytes: offset of its points, seconds per point, number of points
//   point, 12 bytes: time (uint32), value (double)

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libvelmar/nnt/nnt_multitype.h"
#include "util/io/files.h"

namespace velmar::ranged::from::whisper {

constexpr size_t MAX_ARCHIVES = 11;

struct archive_t {
  uint32_t offset, step_s, points;
  uint32_t base_s;  // time of the first point in the ring; 0: nothing was written
};

// One thread at a time.
class whisper_file_c {
 public:
  // Null when there is no file, and, with the reason, when it cannot be used.
  static std::unique_ptr<whisper_file_c> open(const std::string &path, std::string *error,
                                              util::io::files_c &files = util::io::system_files());

  // Fills those of `count` zeroed cells of `period` seconds from start_s on that the archives have points of,
  // from the finest archive to the coarsest. Returns the number of cells up to the last one with a value.
  size_t fill(nnt_multitype *v, uint64_t start_s, unsigned period, size_t count);

  const std::vector<archive_t> &get_archives() const { return m_archives; }  // the finest first

 private:
  explicit whisper_file_c(std::unique_ptr<util::io::file_c> file) : m_file(std::move(file)) {}
  bool read_header(const std::string &path, std::string *error);
  bool read(void *to, size_t size, uint64_t offset);
  bool get_point(const archive_t &archive, uint64_t t_s, unsigned period, nnt_multitype *cell);
  const char *point_at(const archive_t &archive, uint32_t slot);

  const std::unique_ptr<util::io::file_c> m_file;
  std::vector<archive_t> m_archives;
  // Points of one archive that were read together.
  std::vector<char> m_window;
  const archive_t *m_window_archive = nullptr;
  uint32_t m_window_slot = 0, m_window_points = 0;
};

}  // namespace velmar::ranged::from::whisper
