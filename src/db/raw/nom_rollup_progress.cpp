#include "db/raw/nom_rollup_progress.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "platform/krel/base/krel_json.h"
#include "platform/krel/base/krel_log.h"

namespace db::raw {

nom_rollup_progress_c::nom_rollup_progress_c(const std::string &directory, util::io::files_c &files)
    : m_files(files),
      m_filename(directory + "/rollup_progress_status"),
      m_tmp_filename(directory + "/rollup_progress_status.tmp") {
  struct stat st;
  if (stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    krel_fatal("%s is not an existing directory\n", directory.c_str());
  (void)m_files.unlink(m_tmp_filename);  // left over from a crash, or not there
  read_state();
}

void nom_rollup_progress_c::read_state() {
  std::ifstream file(m_filename, std::ios::binary);
  if (!file) return;
  std::stringstream text;
  text << file.rdbuf();
  const krel_json_ptr root(krel_json_tokener_parse(text.str()));
  if (!root || !krel_json_object_is_type(root.get(), krel_json_type_object)) {
    krel_log(krel_error, "%s cannot be read; the shard's rollup will be done again\n", m_filename.c_str());
    m_dirty = true;
    return;
  }
  const auto flag = [&](const char *name) {
    return krel_json_object_get_boolean(krel_json_object_object_get(root.get(), name));
  };
  m_rollup_in_progress = flag("rollup_in_progress");
  m_dirty = flag("dirty");
  m_rollup_finished = flag("finished");
}

// The file first: who sees a mark without the lock may rely on its being on disk.
void nom_rollup_progress_c::write_state(const state_t &state) {
  const auto word = [](bool value) { return value ? "true" : "false"; };
  const std::string text =
      fmt::format("{{\n\t\"rollup_in_progress\": {},\n\t\"dirty\": {},\n\t\"finished\": {}\n}}\n",
                  word(state.in_progress), word(state.dirty), word(state.finished));
  if (const auto code = util::io::atomic_replace(m_filename, text, m_files))
    krel_fatal(
        "cannot write %s: %s. Free space on its disk or mend its permissions, then start the node again\n",
        m_filename.c_str(), code.message().c_str());
  m_rollup_in_progress.store(state.in_progress, std::memory_order_release);
  m_rollup_finished.store(state.finished, std::memory_order_release);
  m_dirty.store(state.dirty, std::memory_order_release);
}

bool nom_rollup_progress_c::mark_dirty() {
  if (is_dirty() && !is_finished()) return false;
  const krel_lock_c lock(m_state_lock);
  if (is_dirty() && !is_finished()) return false;
  const bool was_finished = is_finished();
  write_state({rollup_in_progress(), true, false});
  return was_finished;
}

void nom_rollup_progress_c::mark_clean() {
  const krel_lock_c lock(m_state_lock);
  write_state({rollup_in_progress() && !is_dirty(), false, is_finished()});
}

void nom_rollup_progress_c::start_rollup() {
  const krel_lock_c lock(m_state_lock);
  const bool starts = !rollup_in_progress() && !is_finished();
  write_state({starts || rollup_in_progress(), !starts && is_dirty(), is_finished()});
}

void nom_rollup_progress_c::mark_finished() {
  const krel_lock_c lock(m_state_lock);
  write_state({false, is_dirty(), !is_dirty()});
}

}  // namespace db::raw
