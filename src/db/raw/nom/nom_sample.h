#pragma once
// The compact form of a numeric sample on its way into a raw shard and out of it.

#include <bit>
#include <cstdint>

namespace db::raw {

// `type` is a value letter: i I l L n. `bits` holds the value's own bytes in the low end (an int32 in the
// low four), a double's bit pattern for n; it is ignored for a null.
struct nom_sample_t {
  uint64_t surrogate_id;
  uint64_t ts_ms;
  uint64_t bits;
  uint16_t generation;  // below 512
  char type;
  bool is_null;

  static nom_sample_t of_int32(uint64_t id, uint64_t ts, int32_t v, uint16_t generation = 0) {
    return {id, ts, static_cast<uint32_t>(v), generation, 'i', false};
  }
  static nom_sample_t of_uint32(uint64_t id, uint64_t ts, uint32_t v, uint16_t generation = 0) {
    return {id, ts, v, generation, 'I', false};
  }
  static nom_sample_t of_int64(uint64_t id, uint64_t ts, int64_t v, uint16_t generation = 0) {
    return {id, ts, static_cast<uint64_t>(v), generation, 'l', false};
  }
  static nom_sample_t of_uint64(uint64_t id, uint64_t ts, uint64_t v, uint16_t generation = 0) {
    return {id, ts, v, generation, 'L', false};
  }
  static nom_sample_t of_double(uint64_t id, uint64_t ts, double v, uint16_t generation = 0) {
    return {id, ts, std::bit_cast<uint64_t>(v), generation, 'n', false};
  }
  static nom_sample_t of_null(uint64_t id, uint64_t ts, char type, uint16_t generation = 0) {
    return {id, ts, 0, generation, type, true};
  }
};

}  // namespace db::raw
