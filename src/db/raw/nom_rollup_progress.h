#pragma once
// How far a shard's rollup is, kept in the small file "rollup_progress_status" of the shard's directory.
// Every change is on disk when the call returns. Safe from any thread.

#include <atomic>
#include <string>

#include "platform/krel/base/thread_annotations.h"
#include "util/io/files.h"

namespace db::raw {

class nom_rollup_progress_c {
 public:
  // The directory must exist, else fatal. Reads the file if there is one; a file that cannot be read counts as
  // dirty, so that its rollup is done again.
  explicit nom_rollup_progress_c(const std::string &directory,
                                 util::io::files_c &files = util::io::system_files());

  bool mark_dirty();  // true: it was finished until now
  // A pass that was cut short and has been overtaken by samples is not taken up again: the next begins anew.
  void mark_clean();
  void start_rollup();
  void mark_finished();
  bool is_dirty() const { return m_dirty.load(std::memory_order_acquire); }
  bool is_finished() const { return m_rollup_finished.load(std::memory_order_acquire); }
  bool rollup_in_progress() const { return m_rollup_in_progress.load(std::memory_order_acquire); }

 private:
  struct state_t {
    bool in_progress, dirty, finished;
  };
  void read_state();
  void write_state(const state_t &state) REQUIRES(m_state_lock);

  util::io::files_c &m_files;
  const std::string m_filename, m_tmp_filename;
  krel_mutex_c m_state_lock;  // changes and their writing, in one order
  std::atomic<bool> m_dirty{false}, m_rollup_in_progress{false}, m_rollup_finished{false};
};

}  // namespace db::raw
