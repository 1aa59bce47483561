#include <algorithm>
#include <bit>
#include <cstring>

#include "libvelmar/nnt/nnt_v1.h"

static_assert(std::endian::native == std::endian::little, "records are stored as they are in memory");

namespace {

constexpr uint8_t TYPE_MASK = 7, NO_STDDEV = 8;

// All bytes but the first.
uint8_t checksum(const uint8_t *record) {
  uint64_t words[NNT_V1_RECORD / 8];
  memcpy(words, record, sizeof words);
  uint64_t x = words[0] ^ words[1] ^ words[2] ^ words[3];
  x ^= x >> 32;
  x ^= x >> 16;
  x ^= x >> 8;
  return static_cast<uint8_t>(x) ^ record[0];
}

bool is_four_bytes(nnt_type_t type) {
  return type == NNT_TYPE_INT32 || type == NNT_TYPE_UINT32;
}

}  // namespace

bool nnt_v1_encode(const nnt_multitype &cell, nnt_datum_v1 *out) {
  *out = nnt_datum_v1{};
  if (cell.type == NNT_TYPE_ABSENT) return true;
  if (cell.type > NNT_TYPE_DOUBLE) return false;
  out->typeinfo = static_cast<uint8_t>(cell.type);
  out->count = static_cast<uint16_t>(std::min(cell.count, NNT_COUNT_MAX));
  if (cell.stddev_present)
    out->stddev = cell.stddev;
  else
    out->typeinfo |= NO_STDDEV;
  if (is_four_bytes(cell.type))
    out->value.v_uint64 = cell.value.v_uint32;
  else if (cell.type != NNT_TYPE_NULL)
    out->value = cell.value;
  out->derivative = {cell.derivative, cell.derivative_stddev};
  out->counter = {cell.counter, cell.counter_stddev};
  uint8_t bytes[NNT_V1_RECORD];
  memcpy(bytes, out, sizeof bytes);
  out->xor_chksum = checksum(bytes);
  return true;
}

bool nnt_v1_decode(const void *record, nnt_multitype *cell) {
  *cell = nnt_multitype{};
  uint8_t bytes[NNT_V1_RECORD];
  memcpy(bytes, record, sizeof bytes);
  if (checksum(bytes) != bytes[0]) return false;
  nnt_datum_v1 datum;
  memcpy(&datum, bytes, sizeof datum);
  const auto type = static_cast<nnt_type_t>(datum.typeinfo & TYPE_MASK);
  if (type == NNT_TYPE_ABSENT)
    return std::all_of(std::begin(bytes), std::end(bytes), [](uint8_t b) { return !b; });
  if (type == NNT_TYPE_STRING) return false;
  cell->type = type;
  cell->count = datum.count;
  cell->stddev_present = !(datum.typeinfo & NO_STDDEV);
  if (cell->stddev_present) cell->stddev = datum.stddev;
  if (is_four_bytes(type))
    cell->value.v_uint64 = datum.value.v_uint32;
  else if (type != NNT_TYPE_NULL)
    cell->value = datum.value;
  cell->derivative = datum.derivative.value;
  cell->derivative_stddev = datum.derivative.stddev;
  cell->counter = datum.counter.value;
  cell->counter_stddev = datum.counter.stddev;
  return true;
}
