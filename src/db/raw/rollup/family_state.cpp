#include "db/raw/rollup/family_state.h"

#include <fmt/format.h>

#include "platform/krel/base/krel_log.h"

namespace db::raw {

using util::io::open_mode_e;

namespace {

std::string state_path(const std::string &shard_dir, size_t family) {
  return fmt::format("{}/.{}_state", shard_dir, family);
}
std::string done_path(const std::string &shard_dir, size_t family) {
  return state_path(shard_dir, family) + ".done";
}

}  // namespace

family_state_c::family_state_c(const std::string &shard_dir, size_t family, util::io::files_c &files)
    : m_files(files), m_path(state_path(shard_dir, family)), m_done_path(done_path(shard_dir, family)) {}

bool family_state_c::is_done() const {
  return m_files.exists(m_done_path);
}

uint64_t family_state_c::load_last_surrogate() {
  if (!m_files.exists(m_path) || m_files.open(m_path, open_mode_e::write, &m_file)) return 0;
  uint64_t id = 0;
  size_t got = 0;
  if (m_file->pread(&id, sizeof id, 0, &got) || got != sizeof id) return 0;
  return id;
}

bool family_state_c::save_last_surrogate(uint64_t surrogate_id) {
  std::error_code code;
  if (!m_file) code = m_files.open(m_path, open_mode_e::create, &m_file);
  if (!code) code = m_file->pwrite(&surrogate_id, sizeof surrogate_id, 0);
  if (code) krel_log(krel_error, "cannot write %s: %s\n", m_path.c_str(), code.message().c_str());
  return !code;
}

bool family_state_c::set_done() {
  std::unique_ptr<util::io::file_c> marker;
  const auto code = m_files.open(m_done_path, open_mode_e::create, &marker);
  if (code) krel_log(krel_error, "cannot make %s: %s\n", m_done_path.c_str(), code.message().c_str());
  return !code;
}

void family_state_c::wipe(const std::string &shard_dir, size_t families, util::io::files_c &files) {
  for (size_t family = 0; family < families; family++)
    for (const std::string &path : {done_path(shard_dir, family), state_path(shard_dir, family)}) {
      const auto code = files.unlink(path);
      if (code && code != std::errc::no_such_file_or_directory)
        krel_fatal("couldn't unlink %s - %d (%s)\n", path.c_str(), code.value(), code.message().c_str());
    }
}

}  // namespace db::raw
