#pragma once
// The shards of a store on the line of time. The line is cut at boundaries; the span from one boundary to the
// next is either exactly one shard or a gap that no shard covers.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "db/raw/shard.h"
#include "platform/krel/base/thread_annotations.h"

namespace db::raw {

struct found_shard_t {
  shard_sp shard;                   // null: a gap
  uint64_t start_s = 0, end_s = 0;  // 0: open
};

class raw_shard_cache_c {
 public:
  // The shard or the gap that holds the second. Safe from any thread.
  found_shard_t find(uint64_t ts_s) const;
  // The first shard whose span ends behind the second (the last one that begins before it); null: there is
  // none.
  shard_sp next_at_or_after(uint64_t ts_s) const;
  shard_sp prev_at_or_before(uint64_t ts_s) const;
  // Puts the shard into the line; false when something else lies in its span.
  bool insert(const shard_sp &shard);
  void remove(const shard_sp &shard);
  // Until the function returns false. No lock is held meanwhile.
  void for_each(const std::function<bool(const shard_sp &)> &function) const;

  // One thread at a time works on a shard's directory.
  std::unique_lock<std::mutex> acquire_dir_lock(uint64_t start_s);

 private:
  mutable krel_shared_mutex_c _ts_to_shard_mutex;
  // A real shard at its start; no shard at the start of a gap that lies next to one.
  std::map<uint64_t, shard_sp> _ts_to_shard GUARDED_BY(_ts_to_shard_mutex);
  krel_mutex_c _ts_to_mux_mutex;
  std::map<uint64_t, std::unique_ptr<std::mutex>> _ts_to_mux GUARDED_BY(_ts_to_mux_mutex);
};

}  // namespace db::raw
