#pragma once
// Walks a buffer of the layout with 64-bit offsets by hand, knowing nothing of the code under test:
// a root offset, tables that begin with the distance back to a vtable of 16-bit entries, forward offsets.

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

class buffer_walk_c {
 public:
  explicit buffer_walk_c(std::span<const uint8_t> bytes) : _bytes(bytes) {}

  template <typename T>
  T at(uint64_t place) const {
    T value;
    memcpy(&value, _bytes.subspan(place, sizeof value).data(), sizeof value);
    return value;
  }
  uint64_t root() const { return at<uint64_t>(0); }
  // Where a table's field is, by the slot's offset in the vtable; 0 when it is not there.
  uint64_t field(uint64_t table, uint16_t slot) const {
    const uint64_t vtable = table - static_cast<uint64_t>(at<int64_t>(table));
    if (slot >= at<uint16_t>(vtable)) return 0;
    const uint16_t offset = at<uint16_t>(vtable + slot);
    return offset ? table + offset : 0;
  }
  template <typename T>
  T scalar(uint64_t table, uint16_t slot) const {
    const uint64_t place = field(table, slot);
    return place ? at<T>(place) : T(0);
  }
  uint64_t follow(uint64_t place) const { return place + at<uint64_t>(place); }
  uint64_t child(uint64_t table, uint16_t slot) const { return follow(field(table, slot)); }
  uint64_t length(uint64_t vector) const { return at<uint64_t>(vector); }
  uint64_t element(uint64_t vector, uint64_t i) const { return follow(vector + 8 + 8 * i); }

  template <typename T>
  std::vector<T> scalars(uint64_t table, uint16_t slot) const {
    const uint64_t vector = child(table, slot);
    std::vector<T> out;
    for (uint64_t i = 0; i < length(vector); ++i) out.push_back(at<T>(vector + 8 + i * sizeof(T)));
    return out;
  }
  std::string text(uint64_t table, uint16_t slot) const {
    const std::vector<char> chars = scalars<char>(table, slot);
    return {chars.begin(), chars.end()};
  }

 private:
  std::span<const uint8_t> _bytes;
};
