#include "db/ranged/whisper_file.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "platform/krel/base/krel_log.h"

namespace velmar::ranged::from::whisper {

namespace {

constexpr size_t HEADER_LEN = 16, ARCHIVE_LEN = 12, POINT_LEN = 12;
constexpr uint32_t AGGREGATION_AVERAGE = 1;
constexpr uint32_t WINDOW_POINTS = 4096;

uint32_t load_u32(const char *from) {
  uint32_t value;
  memcpy(&value, from, sizeof value);
  return __builtin_bswap32(value);
}
double load_double(const char *from) {
  uint64_t bits;
  memcpy(&bits, from, sizeof bits);
  return std::bit_cast<double>(__builtin_bswap64(bits));
}

krel_log_stream_t *log_stream() {
  static krel_log_stream_t *const stream = krel_log_stream_find("debug/whisper");
  return stream;
}

bool refuse(const char *why) {
  krel_log(log_stream(), "%s\n", why);
  return false;
}

}  // namespace

std::unique_ptr<whisper_file_c> whisper_file_c::open(const std::string &path, std::string *error,
                                                     util::io::files_c &files) {
  struct stat st;
  if (files.stat(path, &st) || !S_ISREG(st.st_mode)) return nullptr;
  std::unique_ptr<util::io::file_c> file;
  if (const auto code = files.open(path, util::io::open_mode_e::read, &file)) {
    *error = fmt::format("{} {}", path, code.message());
    return nullptr;
  }
  std::unique_ptr<whisper_file_c> opened(new whisper_file_c(std::move(file)));
  return opened->read_header(path, error) ? std::move(opened) : nullptr;
}

bool whisper_file_c::read(void *to, size_t size, uint64_t offset) {
  size_t got = 0;
  return !m_file->pread(to, size, offset, &got) && got == size;
}

bool whisper_file_c::read_header(const std::string &path, std::string *error) {
  const auto fail = [&](std::string why) {
    *error = fmt::format("{} {}", path, why);
    return false;
  };
  char header[HEADER_LEN];
  if (!read(header, sizeof header, 0)) return fail("failed metadata read");
  const uint32_t aggregation = load_u32(header), count = load_u32(header + 12);
  if (aggregation != AGGREGATION_AVERAGE)
    return fail(fmt::format("has unsupported aggregation {}", aggregation));
  if (count > MAX_ARCHIVES) return fail(fmt::format("claims to have {} retentions... unsupported", count));
  char bytes[MAX_ARCHIVES * ARCHIVE_LEN];
  if (!read(bytes, count * ARCHIVE_LEN, HEADER_LEN)) return fail("failed retensions read");
  for (size_t i = 0; i < count; i++) {
    const char *at = bytes + i * ARCHIVE_LEN;
    archive_t archive = {load_u32(at), load_u32(at + 4), load_u32(at + 8), 0};
    if (archive.step_s == 0 || archive.points == 0) return fail("failed retensions read");
    char base[4];
    if (!read(base, sizeof base, archive.offset))
      return fail(fmt::format("bad base read of retention period {}", i));
    archive.base_s = load_u32(base);
    m_archives.push_back(archive);
  }
  std::stable_sort(m_archives.begin(), m_archives.end(),
                   [](const archive_t &a, const archive_t &b) { return a.step_s < b.step_s; });
  return true;
}

// Null: it cannot be read.
const char *whisper_file_c::point_at(const archive_t &archive, uint32_t slot) {
  if (m_window_archive != &archive || slot < m_window_slot || slot - m_window_slot >= m_window_points) {
    m_window.resize(WINDOW_POINTS * POINT_LEN);
    m_window_points = 0;
    const uint32_t count = std::min(WINDOW_POINTS, archive.points - slot);
    size_t got = 0;
    if (m_file->pread(m_window.data(), count * POINT_LEN, archive.offset + uint64_t{slot} * POINT_LEN, &got))
      return nullptr;
    m_window_archive = &archive;
    m_window_slot = slot;
    m_window_points = static_cast<uint32_t>(got / POINT_LEN);
    if (m_window_points == 0) return nullptr;
  }
  return m_window.data() + size_t{slot - m_window_slot} * POINT_LEN;
}

// Merges the points of [t_s, t_s + period) into the cell; false when the archive cannot have all of them.
bool whisper_file_c::get_point(const archive_t &archive, uint64_t t_s, unsigned period, nnt_multitype *cell) {
  const uint64_t step = archive.step_s;
  const auto base = static_cast<int64_t>(archive.base_s), t = static_cast<int64_t>(t_s);
  const auto reach = static_cast<int64_t>((archive.points - uint64_t{1}) * step);
  if (period % step != 0 || (t - base) % archive.step_s != 0) return refuse("unaligned period request");
  if (t + period <= base - reach) return refuse("too early");
  if (t > base + reach) return refuse("too late");
  if (period / step > archive.points) {
    krel_log(log_stream(), "out of bounds %u\n", archive.points);
    return false;
  }
  const int64_t turn = (t - base) / archive.step_s % archive.points;
  auto slot = static_cast<uint32_t>(turn < 0 ? turn + archive.points : turn);
  for (uint64_t at_s = t_s; at_s < t_s + period;
       at_s += step, slot = slot + 1 == archive.points ? 0 : slot + 1) {
    const char *point = point_at(archive, slot);
    if (!point) return refuse("bad read");
    const double value = load_double(point + 4);
    if (load_u32(point) != at_s || !std::isfinite(value)) continue;
    nnt_multitype one = {};
    one.type = NNT_TYPE_DOUBLE;
    one.count = 1;
    one.value.v_double = value;
    nnt_multitype_accum(cell, &one);
  }
  return true;
}

size_t whisper_file_c::fill(nnt_multitype *v, uint64_t start_s, unsigned period, size_t count) {
  // points have times of 32 bits
  if (start_s > UINT32_MAX || period == 0) return 0;
  count = std::min<uint64_t>(count, (UINT32_MAX - start_s) / period + 1);
  size_t filled = 0;
  for (const archive_t &archive : m_archives) {
    if (archive.base_s == 0) continue;
    krel_log(log_stream(), "archive @%u from 0 to %zd\n", archive.step_s, static_cast<ssize_t>(count));
    for (size_t i = 0; i < count; i++) {
      if (v[i].type != NNT_TYPE_ABSENT) continue;
      get_point(archive, start_s + i * period, period, &v[i]);
      if (v[i].type != NNT_TYPE_ABSENT) filled = std::max(filled, i + 1);
    }
  }
  return filled;
}

}  // namespace velmar::ranged::from::whisper
