#pragma once
// The bytes of the NOM data database: one record holds one metric's samples of one hour.
//
// Key, 12 bytes: surrogate id (8, little-endian), hour floor in seconds (4, big-endian).
// Value: checksum (1, XOR of all bytes behind it), type (1), entry_count (4, little-endian), then
// entry_count measurements. A measurement: a word of bits (0-21 offset in ms from the floor, 22-30
// generation, 31 null), then the value, 4 or 8 bytes. Histograms: the 8-byte value is the place of a blob
// in the area behind the last measurement; a blob is its length (8) and that many bytes.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

static_assert(std::endian::native == std::endian::little, "records are read and written in place");

namespace velmar_db_raw_nom {

enum nom_data_type_t : uint8_t {
  NOM_TYPE_INT32 = 1,
  NOM_TYPE_UINT32 = 2,
  NOM_TYPE_INT64 = 3,
  NOM_TYPE_UINT64 = 4,
  NOM_TYPE_DOUBLE = 5,
  NOM_TYPE_HISTOGRAM = 6,
  NOM_TYPE_HIST_COMP = 7,
  NOM_TYPE_HISTOGRAM_CUMUL = 8,
  NOM_TYPE_HIST_CUMUL_COMP = 9,
};

enum nom_merge_type_e { numeric = 0, histogram = 1 };

struct __attribute__((packed)) rocks_entry_header_t {
  uint8_t checksum;
  uint8_t type;
  uint32_t entry_count;
};
static_assert(sizeof(rocks_entry_header_t) == 6);

template <typename T>
struct __attribute__((packed)) measurement_t {
  using value_type = T;
  uint32_t bits;
  T value;
};
using int32_measurement_t = measurement_t<int32_t>;
using uint32_measurement_t = measurement_t<uint32_t>;
using int64_measurement_t = measurement_t<int64_t>;
using uint64_measurement_t = measurement_t<uint64_t>;
using double_measurement_t = measurement_t<double>;
using hist_offset_measurement_t = measurement_t<uint64_t>;
static_assert(sizeof(int32_measurement_t) == 8 && sizeof(double_measurement_t) == 12);

constexpr size_t KEY_LEN = 12;
constexpr size_t HEADER_LEN = sizeof(rocks_entry_header_t);
constexpr size_t MAX_MEASUREMENT_LEN = 12;
constexpr size_t BLOB_LENGTH_LEN = 8;
constexpr uint32_t RECORD_SIZE_S = 3600;
constexpr uint64_t RECORD_SIZE_MS = RECORD_SIZE_S * 1000ull;
constexpr uint64_t TIME_LIMIT_MS = 4294967295001ull;  // the first time that is refused
constexpr uint32_t GENERATION_LIMIT = 512;
constexpr int NUM_COLUMN_FAMILIES = 8;

constexpr uint32_t OFFSET_MASK = 0x3fffff;
constexpr uint32_t NULL_BIT = 0x80000000u;

constexpr uint32_t make_bits(uint32_t offset, uint32_t generation, bool is_null) {
  return offset | generation << 22 | (is_null ? NULL_BIT : 0);
}
constexpr uint32_t offset_of(uint32_t bits) {
  return bits & OFFSET_MASK;
}
constexpr uint32_t generation_of(uint32_t bits) {
  return bits >> 22 & 0x1ff;
}
constexpr bool is_null_of(uint32_t bits) {
  return (bits & NULL_BIT) != 0;
}

constexpr bool is_numeric_type(unsigned type) {
  return type >= NOM_TYPE_INT32 && type <= NOM_TYPE_DOUBLE;
}
constexpr bool is_histogram_type(unsigned type) {
  return type >= NOM_TYPE_HISTOGRAM && type <= NOM_TYPE_HIST_CUMUL_COMP;
}
// Measurement size; 0 of no type.
constexpr size_t measurement_size(unsigned type) {
  if (type == NOM_TYPE_INT32 || type == NOM_TYPE_UINT32) return 8;
  return type >= NOM_TYPE_INT64 && type <= NOM_TYPE_HIST_CUMUL_COMP ? 12 : 0;
}

// i I l L n to 1 2 3 4 5; 0 of anything else.
constexpr uint8_t metric_to_nom_type(char letter) {
  switch (letter) {
    case 'i':
      return NOM_TYPE_INT32;
    case 'I':
      return NOM_TYPE_UINT32;
    case 'l':
      return NOM_TYPE_INT64;
    case 'L':
      return NOM_TYPE_UINT64;
    case 'n':
      return NOM_TYPE_DOUBLE;
    default:
      return 0;
  }
}
// 1..5 to its letter, 6 and 7 to h, 8 and 9 to H; 0 of anything else.
constexpr char nom_to_metric_type(unsigned type) {
  constexpr char letters[] = {0, 'i', 'I', 'l', 'L', 'n', 'h', 'h', 'H', 'H'};
  return type < sizeof letters ? letters[type] : 0;
}

// The family of a metric among `num_families`.
constexpr uint32_t family_of(uint64_t surrogate_id, uint32_t num_families = NUM_COLUMN_FAMILIES) {
  uint64_t x = surrogate_id ^ surrogate_id >> 32;
  x ^= x >> 16;
  x ^= x >> 8;
  return static_cast<uint32_t>(x & 0xff) % num_families;
}

inline void make_key(uint64_t surrogate_id, uint32_t floor_s, char *key) {
  memcpy(key, &surrogate_id, 8);
  const uint32_t floor_be = __builtin_bswap32(floor_s);
  memcpy(key + 8, &floor_be, 4);
}
inline uint64_t id_from_key(const char *key) {
  uint64_t id;
  memcpy(&id, key, 8);
  return id;
}
// False unless the key has 12 bytes.
inline bool timestamp_from_key(std::string_view key, uint32_t *floor_s) {
  if (key.size() != KEY_LEN) return false;
  uint32_t floor_be;
  memcpy(&floor_be, key.data() + 8, 4);
  *floor_s = __builtin_bswap32(floor_be);
  return true;
}

// XOR of `length` bytes, eight at a time.
inline uint8_t xor_bytes(const void *bytes, size_t length) {
  const char *p = static_cast<const char *>(bytes);
  uint64_t sum = 0, word;
  for (; length >= 8; p += 8, length -= 8) {
    memcpy(&word, p, 8);
    sum ^= word;
  }
  if (length != 0) {
    word = 0;
    memcpy(&word, p, length);
    sum ^= word;
  }
  sum ^= sum >> 32;
  sum ^= sum >> 16;
  sum ^= sum >> 8;
  return static_cast<uint8_t>(sum);
}
// Of a whole record, which has at least a header.
inline uint8_t record_checksum(const char *record, size_t length) {
  return xor_bytes(record + 1, length - 1);
}
inline bool has_right_checksum(std::string_view record) {
  return record.size() >= HEADER_LEN &&
         record_checksum(record.data(), record.size()) == static_cast<uint8_t>(record[0]);
}
inline rocks_entry_header_t header_of(std::string_view record) {
  rocks_entry_header_t header;
  memcpy(&header, record.data(), sizeof header);
  return header;
}
// Does the record's length fit its type and count (and, for histograms, do its blobs lie inside and in the
// order of their measurements)? The checksum is another question.
bool is_well_formed(std::string_view record);

}  // namespace velmar_db_raw_nom
