#pragma once
// The hash table of a metadata file: open addressing, one probe after the other, eight slots per entry.

#include <cstdint>
#include <vector>

#include "db/surrogate3/codec/fbs_layout.h"

namespace db::surrogate3 {

class fbs_hash_map_builder_c {
 public:
  static constexpr uint64_t capacity_multiplier = 8;

  explicit fbs_hash_map_builder_c(size_t number_of_entries)
      : _entries(number_of_entries * capacity_multiplier), _capacity(_entries.size()) {}

  // `entry`: the fbs_canonical_name_ht_entry of a key, whose hash this is. Keys come once each.
  void set(uint64_t hash, fb64::uoffset_t entry) {
    uint64_t slot = hash % _capacity;
    while (_entries[slot] != 0) {
      ++_collisions;
      if (++slot == _capacity) slot = 0;
    }
    _entries[slot] = entry;
    ++_length;
  }
  fb64::Offset<fbs::fbs_canonical_name_ht> materialize(builder_t &builder) const {
    const auto free_slot = fbs::Createfbs_canonical_name_ht_entry(builder);  // all free slots share one
    const auto slots = make_reference_vector<fbs::fbs_canonical_name_ht_entry>(
        builder, _entries.size(), [&](size_t i) { return _entries[i] ? _entries[i] : free_slot.o; });
    return fbs::Createfbs_canonical_name_ht(builder, slots, _capacity, _length);
  }
  uint64_t collisions() const { return _collisions; }

 private:
  std::vector<fb64::uoffset_t> _entries;
  uint64_t _capacity;
  uint64_t _length = 0;
  uint64_t _collisions = 0;
};

}  // namespace db::surrogate3
