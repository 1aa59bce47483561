#include "db/raw/rollup/cumulative_forwarding.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "platform/krel/base/krel_log.h"

namespace db::raw {

using util::io::open_mode_e;

namespace {

constexpr uint64_t MARKER = 0x55aa55aa12345678;
constexpr int MAX_STEPS = 1024;  // bytes that one search for a marker passes over
constexpr size_t BUFFER_BYTES = 65536;
constexpr uint64_t COMPARED_BYTES = 1 << 28;  // larger files count as changed

// The order of keys is that of the id's bytes in memory.
uint64_t key_order(uint64_t surrogate_id) {
  return __builtin_bswap64(surrogate_id);
}

}  // namespace

std::string cumulative_forwarding_path(const std::string &directory, uint64_t shard_start_s, size_t family) {
  return fmt::format("{}/cumulative_forwarding_{}_{}.dat", directory, shard_start_s, family);
}

// ---- reading

cumulative_reader_c::cumulative_reader_c(const std::string &path, util::io::files_c &files) {
  if (!files.exists(path)) return;
  auto code = files.open(path, open_mode_e::read, &m_file);
  if (!code) code = m_file->size(&m_size);
  if (!code) return;
  krel_log(krel_error, "cannot read %s: %s\n", path.c_str(), code.message().c_str());
  m_file.reset();
}

bool cumulative_reader_c::read_at(uint64_t at, void *out, size_t size) {
  if (at > m_size || size > m_size - at) return false;
  if (size > BUFFER_BYTES) {
    size_t got = 0;
    return !m_file->pread(out, size, at, &got) && got == size;
  }
  if (at < m_buffer_at || at + size > m_buffer_at + m_buffer.size()) {
    m_buffer.resize(std::min<uint64_t>(BUFFER_BYTES, m_size - at));
    size_t got = 0;
    if (m_file->pread(m_buffer.data(), m_buffer.size(), at, &got)) got = 0;
    m_buffer.resize(got);
    m_buffer_at = at;
    if (got < size) return false;
  }
  memcpy(out, m_buffer.data() + (at - m_buffer_at), size);
  return true;
}

bool cumulative_reader_c::next_header() {
  for (int step = 0; step <= MAX_STEPS; step++, m_at++) {
    uint64_t marker;
    if (!read_at(m_at, &marker, sizeof marker)) return false;
    if (marker != MARKER) continue;
    if (!read_at(m_at, &m_header, sizeof m_header)) return false;
    if (m_header.size > m_size - m_at - sizeof m_header) continue;
    m_has_header = true;
    return true;
  }
  return false;
}

bool cumulative_reader_c::read(uint64_t surrogate_id, uint64_t *ts_ms, histogram_t *histogram) {
  if (!m_file) return false;
  for (;;) {
    if (!m_has_header && !next_header()) return false;
    if (key_order(m_header.surrogate_id) > key_order(surrogate_id)) return false;
    const bool found = m_header.surrogate_id == surrogate_id;
    if (found) {
      m_bytes.resize(m_header.size);
      *ts_ms = m_header.ts_ms;
    }
    const bool whole =
        found && read_at(m_at + sizeof m_header, m_bytes.data(), m_bytes.size()) &&
        hist_deserialize(histogram, m_bytes.data(), m_bytes.size()) == static_cast<ssize_t>(m_bytes.size());
    m_has_header = false;
    skip();
    if (whole) return true;
    if (found) krel_log(krel_error, "a forwarded histogram of surrogate %lu cannot be read\n", surrogate_id);
  }
}

// ---- writing

cumulative_writer_c::cumulative_writer_c(const std::string &path, uint64_t resume_at, util::io::files_c &files)
    : m_files(files), m_path(path), m_tmp_path(path + ".tmp") {
  if (resume_at == 0) {
    succeeded(m_files.open(m_tmp_path, open_mode_e::replace, &m_file));
    return;
  }
  // The walk was cut short behind the file's renaming: what it wrote has its name already.
  if (!m_files.exists(m_tmp_path) && m_files.exists(m_path) && !succeeded(m_files.rename(m_path, m_tmp_path)))
    return;
  uint64_t keep = 0;
  {
    cumulative_reader_c reader(m_tmp_path, files);
    while (reader.m_file && reader.next_header() && reader.m_at == keep &&
           key_order(reader.m_header.surrogate_id) < key_order(resume_at)) {
      reader.skip();
      keep = reader.m_at;
    }
  }
  if (succeeded(m_files.open(m_tmp_path, open_mode_e::create, &m_file)) && !succeeded(m_file->truncate(keep)))
    m_file.reset();
}

// Else a line in the log.
bool cumulative_writer_c::succeeded(const std::error_code &code) {
  if (code) krel_log(krel_error, "cannot write %s: %s\n", m_tmp_path.c_str(), code.message().c_str());
  return !code;
}

bool cumulative_writer_c::write(uint64_t surrogate_id, uint64_t ts_ms, const histogram_t *histogram) {
  if (!m_file) return false;
  const size_t size = hist_serialize_estimate(histogram);
  const uint64_t header[] = {MARKER, surrogate_id, ts_ms, size};
  m_record.resize(sizeof header + size);
  memcpy(m_record.data(), header, sizeof header);
  const ssize_t written = hist_serialize(histogram, m_record.data() + sizeof header, size);
  krel_assert(written == static_cast<ssize_t>(size));
  return succeeded(m_file->append(m_record.data(), m_record.size()));
}

bool cumulative_writer_c::finish(bool *changed) {
  if (!m_file) return false;
  m_file.reset();
  std::string before, now;
  const bool existed = m_files.exists(m_path);
  if (existed && m_files.read_whole(m_path, &before, COMPARED_BYTES)) before = "?";
  if (m_files.read_whole(m_tmp_path, &now, COMPARED_BYTES)) now = "!";
  *changed = before != now;
  if (!now.empty()) return succeeded(m_files.rename(m_tmp_path, m_path));
  return succeeded(m_files.unlink(m_tmp_path)) && (!existed || succeeded(m_files.unlink(m_path)));
}

}  // namespace db::raw
