#pragma once
// A block: 127 consecutive cells of one metric and period as they lie on disk, the key it is stored under, and
// where in the grid of blocks a time falls. The grid depends on the period alone. Plain data; no locks.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "libvelmar/nnt/nnt_multitype.h"

namespace db::ranged::nntbs {

static_assert(std::endian::native == std::endian::little, "blocks are stored as they lie in memory");

constexpr size_t BLOCK_SLOTS = 127;  // with them a block and what the store puts around it fill a page of 4 KiB
constexpr uint8_t BLOCK_VERSION = 1;

enum class nntbs_block_type_e : uint8_t { all = 0, average = 1, counter = 2, derivative = 3 };

#pragma pack(push, 1)
struct nntbs_rate_t {
  float value, stddev;
};
struct nntbs_datum_t {
  uint32_t typeinfo_and_count;  // low byte: nnt_type_t, and DATUM_NO_STDDEV; 0: the slot is empty. Above: count
  uint64_t value;               // the bytes of nnt_multitype's value
  nntbs_rate_t counter, derivative;
  float stddev;
};
struct nntbs_block_t {
  uint8_t version;
  nntbs_block_type_e type;
  uint32_t crc;          // CRC-32 of datum
  uint64_t creation_ts;  // microseconds, when the block was first made
  nntbs_datum_t datum[BLOCK_SLOTS];
};
#pragma pack(pop)
static_assert(sizeof(nntbs_datum_t) == 32 && offsetof(nntbs_datum_t, value) == 4 &&
              offsetof(nntbs_datum_t, counter) == 12 && offsetof(nntbs_datum_t, derivative) == 20 &&
              offsetof(nntbs_datum_t, stddev) == 28);
static_assert(sizeof(nntbs_block_t) == 4078 && offsetof(nntbs_block_t, crc) == 2 &&
              offsetof(nntbs_block_t, creation_ts) == 6 && offsetof(nntbs_block_t, datum) == 14);

constexpr uint32_t DATUM_NO_STDDEV = 0x08;

// ---- places. Times and periods in seconds; a period is at least 1.
constexpr uint64_t block_span_s(uint64_t period) {
  return BLOCK_SLOTS * period;
}
constexpr uint64_t block_floor_of(uint64_t t, uint64_t period) {
  return t / block_span_s(period) * block_span_s(period);
}
constexpr size_t block_slot_of(uint64_t t, uint64_t period) {
  return static_cast<size_t>(t % block_span_s(period) / period);
}
constexpr uint64_t round_up_to_blocks(uint64_t seconds, uint64_t period) {
  return (seconds + block_span_s(period) - 1) / block_span_s(period) * block_span_s(period);
}

// ---- keys: the surrogate id as in memory, then the floor with its most significant byte first
constexpr size_t BLOCK_KEY_SIZE = 16;
using block_key_t = std::array<uint8_t, BLOCK_KEY_SIZE>;
inline block_key_t make_block_key(uint64_t sid, uint64_t block_floor) {
  block_key_t key;
  const uint64_t floor = __builtin_bswap64(block_floor);
  memcpy(key.data(), &sid, 8);
  memcpy(key.data() + 8, &floor, 8);
  return key;
}
inline void parse_block_key(const uint8_t *key, uint64_t *sid, uint64_t *block_floor) {
  memcpy(sid, key, 8);
  memcpy(block_floor, key + 8, 8);
  *block_floor = __builtin_bswap64(*block_floor);
}

// ---- cells. A cell's type is at most NNT_TYPE_DOUBLE; its count keeps 24 bits.
inline void block_set_cell(nntbs_block_t *block, size_t slot, const nnt_multitype &cell) {
  nntbs_datum_t *const d = &block->datum[slot];
  if (cell.type == NNT_TYPE_ABSENT) {
    *d = {};
    return;
  }
  nntbs_datum_t n;
  n.typeinfo_and_count = (cell.count << 8) + cell.type + (cell.stddev_present ? 0 : DATUM_NO_STDDEV);
  memcpy(&n.value, &cell.value, sizeof n.value);
  n.counter = {cell.counter, cell.counter_stddev};
  n.derivative = {cell.derivative, cell.derivative_stddev};
  n.stddev = cell.stddev;
  *d = n;
}
inline bool block_slot_is_empty(const nntbs_block_t &block, size_t slot) {
  return (block.datum[slot].typeinfo_and_count & 0xff) == 0;
}
// False, and the cell stays as it is, when the slot holds no cell of a known type. Minima and maxima are in no
// block: the cell's stay.
inline bool block_get_cell(const nntbs_block_t &block, size_t slot, nnt_multitype *cell) {
  const nntbs_datum_t d = block.datum[slot];
  const uint32_t type = d.typeinfo_and_count & 0xf7;
  if ((d.typeinfo_and_count & 0xff) == 0 || type > NNT_TYPE_DOUBLE) return false;
  cell->type = static_cast<nnt_type_t>(type);
  cell->count = d.typeinfo_and_count >> 8;
  cell->stddev_present = (d.typeinfo_and_count & DATUM_NO_STDDEV) == 0;
  if (cell->stddev_present) cell->stddev = d.stddev;
  memcpy(&cell->value, &d.value, sizeof d.value);
  cell->counter = d.counter.value;
  cell->counter_stddev = d.counter.stddev;
  cell->derivative = d.derivative.value;
  cell->derivative_stddev = d.derivative.stddev;
  return true;
}

// ---- whole blocks
void block_init(nntbs_block_t *block, uint64_t now_us);  // empty, of the present version
uint32_t block_crc(const nntbs_block_t &block);
void block_seal(nntbs_block_t *block);  // sets the checksum
// Is it of the version that this code reads, with the checksum of its cells?
bool block_is_sound(const nntbs_block_t &block);
// Clears the cells of times below `before`; the checksum is then to be made anew.
void block_clear_before(nntbs_block_t *block, uint64_t block_floor, uint64_t period, uint64_t before);
// The first or last slot that holds something; BLOCK_SLOTS when none does.
size_t block_first_filled(const nntbs_block_t &block);
size_t block_last_filled(const nntbs_block_t &block);

}  // namespace db::ranged::nntbs
