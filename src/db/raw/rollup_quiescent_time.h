#pragma once
// When a shard was last written: one mapped number on disk, changed at most once a minute and without a
// system call.

#include <atomic>
#include <cstdint>
#include <string>

namespace db::raw {

class rollup_quiescent_time_c {
 public:
  // Makes the directory and the file when they are missing; failure is fatal. now_s: seconds since 1970.
  rollup_quiescent_time_c(const std::string &directory, uint64_t now_s);
  ~rollup_quiescent_time_c();
  rollup_quiescent_time_c(const rollup_quiescent_time_c &) = delete;
  rollup_quiescent_time_c &operator=(const rollup_quiescent_time_c &) = delete;

  // From any thread. The stored time is the next whole minute.
  void set_last_write_ts(uint64_t now_s);
  uint64_t get_last_write_ts() const { return m_last_write_ts->load(std::memory_order_relaxed); }
  bool is_new_shard() const { return m_new_shard; }
  void clear_new_shard() { m_new_shard = false; }

 private:
  std::string m_last_write_ts_file;
  std::atomic<uint64_t> *m_last_write_ts;  // in the mapping
  bool m_new_shard = false;
};

}  // namespace db::raw
