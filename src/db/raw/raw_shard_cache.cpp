#include "db/raw/raw_shard_cache.h"

#include <iterator>
#include <vector>

namespace db::raw {

namespace {

uint64_t end_of(const shard_sp &shard) {
  uint64_t start, end;
  shard->get_times(&start, &end);
  return end;
}

}  // namespace

found_shard_t raw_shard_cache_c::find(uint64_t ts_s) const {
  const krel_shared_lock_c lock(_ts_to_shard_mutex);
  const auto next = _ts_to_shard.upper_bound(ts_s);
  found_shard_t found;
  found.end_s = next == _ts_to_shard.end() ? 0 : next->first;
  if (next == _ts_to_shard.begin()) return found;
  const auto at = std::prev(next);
  found.start_s = at->first;
  found.shard = at->second;
  if (found.shard) found.end_s = end_of(found.shard);
  return found;
}

shard_sp raw_shard_cache_c::next_at_or_after(uint64_t ts_s) const {
  const krel_shared_lock_c lock(_ts_to_shard_mutex);
  auto it = _ts_to_shard.upper_bound(ts_s);
  if (it != _ts_to_shard.begin()) --it;
  for (; it != _ts_to_shard.end(); ++it)
    if (it->second && end_of(it->second) > ts_s) return it->second;
  return nullptr;
}

shard_sp raw_shard_cache_c::prev_at_or_before(uint64_t ts_s) const {
  const krel_shared_lock_c lock(_ts_to_shard_mutex);
  for (auto it = _ts_to_shard.upper_bound(ts_s); it != _ts_to_shard.begin();)
    if ((--it)->second) return it->second;
  return nullptr;
}

bool raw_shard_cache_c::insert(const shard_sp &shard) {
  uint64_t start, end;
  shard->get_times(&start, &end);
  const krel_exclusive_lock_c lock(_ts_to_shard_mutex);
  for (auto it = _ts_to_shard.lower_bound(start); it != _ts_to_shard.end() && it->first < end; ++it)
    if (it->second) return false;
  auto before = _ts_to_shard.upper_bound(start);
  if (before != _ts_to_shard.begin() && std::prev(before)->second && end_of(std::prev(before)->second) > start)
    return false;
  _ts_to_shard.erase(_ts_to_shard.lower_bound(start), _ts_to_shard.lower_bound(end));
  _ts_to_shard[start] = shard;
  _ts_to_shard.emplace(end, nullptr);  // a gap, unless a shard begins there
  return true;
}

void raw_shard_cache_c::remove(const shard_sp &shard) {
  uint64_t start, end;
  shard->get_times(&start, &end);
  const krel_exclusive_lock_c lock(_ts_to_shard_mutex);
  const auto it = _ts_to_shard.find(start);
  if (it == _ts_to_shard.end() || it->second != shard) return;
  it->second = nullptr;
  // gaps that lie side by side become one
  const auto next = std::next(it);
  if (next != _ts_to_shard.end() && !next->second) _ts_to_shard.erase(next);
  if (it == _ts_to_shard.begin() || !std::prev(it)->second) _ts_to_shard.erase(it);
}

void raw_shard_cache_c::for_each(const std::function<bool(const shard_sp &)> &function) const {
  std::vector<shard_sp> shards;
  {
    const krel_shared_lock_c lock(_ts_to_shard_mutex);
    for (const auto &[boundary, shard] : _ts_to_shard)
      if (shard) shards.push_back(shard);
  }
  for (const shard_sp &shard : shards)
    if (!function(shard)) return;
}

std::unique_lock<std::mutex> raw_shard_cache_c::acquire_dir_lock(uint64_t start_s) {
  std::mutex *mutex;
  {
    const krel_lock_c lock(_ts_to_mux_mutex);
    auto &slot = _ts_to_mux[start_s];
    if (!slot) slot = std::make_unique<std::mutex>();
    mutex = slot.get();
  }
  return std::unique_lock(*mutex);
}

}  // namespace db::raw
