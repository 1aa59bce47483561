#pragma once
// A walk over the shards of a period that overlap a range of time, whatever their modes, the oldest first. It
// holds references: a shard that is removed meanwhile still appears. One thread at a time.

#include <utility>
#include <vector>

#include "db/ranged/nntbs/shard/rollup_shard.h"

namespace db::ranged::nntbs {

class rollup_shard_iterator_c {
 public:
  // The range in seconds, both ends in it.
  rollup_shard_iterator_c(uint64_t epoch, uint64_t apocalypse) : _epoch(epoch), _apocalypse(apocalypse) {}

  void assign_shards(std::vector<rollup_shard_sp> sorted) {
    _shards_in_scope = std::move(sorted);
    _inferior_iterator = 0;
  }
  uint64_t get_epoch() const { return _epoch; }
  uint64_t get_apocalypse() const { return _apocalypse; }
  bool is_valid() const {
    return _inferior_iterator < _shards_in_scope.size() &&
           _shards_in_scope[_inferior_iterator]->floor_s() <= _apocalypse;
  }
  const rollup_shard_sp &get() const { return _shards_in_scope[_inferior_iterator]; }  // while valid
  void advance() { _shards_in_scope[_inferior_iterator++].reset(); }

 private:
  uint64_t _epoch, _apocalypse;
  std::vector<rollup_shard_sp> _shards_in_scope;
  size_t _inferior_iterator = 0;
};

}  // namespace db::ranged::nntbs
