#include "db/raw/nom/nom_batch.h"

#include <rocksdb/version.h>

#include <algorithm>
#include <array>
#include <utility>

#include "db/raw/nom/nom_merge.h"

// The serialised form of a write batch is what RocksDB's own log holds: sequence (8), count (4), then per
// merge its tag, the family unless it is 0, and key and value with their lengths as LEB128.
static_assert(ROCKSDB_MAJOR == 7, "check the tags of merges in RocksDB's write batch");

namespace velmar_db_raw_nom {
namespace {

using db::raw::nom_sample_t;

constexpr size_t BATCH_HEADER_LEN = 12;
constexpr char TAG_MERGE = 0x2;
constexpr char TAG_FAMILY_MERGE = 0x6;
constexpr size_t MAX_VARINT_LEN = 5;
constexpr size_t SMALL_SORT = 192;             // below: a comparison sort is faster
constexpr size_t FULL_BATCH_LEN = 1u << 20;    // as large as a memtable, which changes only between batches
constexpr size_t KEPT_BUFFER_LEN = 16u << 20;  // a larger buffer is given back after use

char *put_varint(char *at, uint32_t value) {
  for (; value >= 0x80; value >>= 7) *at++ = static_cast<char>(value | 0x80);
  *at++ = static_cast<char>(value);
  return at;
}

bool key_less(const sample_ref_t &a, const sample_ref_t &b) {
  return a.sort_id != b.sort_id ? a.sort_id < b.sort_id : a.floor_s < b.floor_s;
}
bool same_key(const sample_ref_t &a, const sample_ref_t &b) {
  return a.sort_id == b.sort_id && a.floor_s == b.floor_s;
}

constexpr int KEY_BYTES = 12;
// Key byte 0 is the least significant one: of the floor, then of the id.
uint8_t key_byte(const sample_ref_t &ref, int byte) {
  return static_cast<uint8_t>(byte < 4 ? ref.floor_s >> 8 * byte : ref.sort_id >> 8 * (byte - 4));
}

template <typename From, typename To>
char *put_value(char *at, uint64_t bits) {
  From from;
  memcpy(&from, &bits, sizeof from);
  const auto to = static_cast<To>(from);
  memcpy(at, &to, sizeof to);
  return at + sizeof to;
}

template <typename To>
char *put_value_as(char *at, const nom_sample_t &sample) {
  const uint64_t bits = sample.is_null ? 0 : sample.bits;
  switch (sample.type) {
    case 'i':
      return put_value<int32_t, To>(at, bits);
    case 'I':
      return put_value<uint32_t, To>(at, bits);
    case 'l':
      return put_value<int64_t, To>(at, bits);
    case 'L':
      return put_value<uint64_t, To>(at, bits);
    default:
      if constexpr (std::is_same_v<To, double>) return put_value<double, To>(at, bits);
      return at;  // no other type holds a double, so a group with one is of doubles
  }
}

template <typename To>
void put_measurements(char *at, std::span<const sample_ref_t> group, std::span<const nom_sample_t> samples) {
  for (const sample_ref_t &ref : group) {
    const nom_sample_t &sample = samples[ref.index];
    const auto offset = static_cast<uint32_t>(sample.ts_ms - ref.floor_s * 1000ull);
    const uint32_t bits = make_bits(offset, sample.generation, sample.is_null);
    memcpy(at, &bits, sizeof bits);
    at = put_value_as<To>(at + sizeof bits, sample);
  }
}

}  // namespace

void sort_refs(std::vector<sample_ref_t> *refs, std::vector<sample_ref_t> *scratch) {
  if (std::is_sorted(refs->begin(), refs->end(), key_less)) return;
  if (refs->size() < SMALL_SORT) {
    std::sort(refs->begin(), refs->end(), [](const sample_ref_t &a, const sample_ref_t &b) {
      return key_less(a, b) || (same_key(a, b) && a.index < b.index);
    });
    return;
  }
  // By key bytes from the last to the first; bytes that are the same in all are passed over.
  std::array<std::array<uint32_t, 256>, KEY_BYTES> counts{};
  for (const sample_ref_t &ref : *refs) {
    for (int byte = 0; byte < KEY_BYTES; ++byte) ++counts[byte][key_byte(ref, byte)];
  }
  scratch->resize(refs->size());
  for (int byte = 0; byte < KEY_BYTES; ++byte) {
    auto &count = counts[byte];
    if (count[key_byte(refs->front(), byte)] == refs->size()) continue;
    uint32_t place = 0;
    for (uint32_t &c : count) place += std::exchange(c, place);
    for (const sample_ref_t &ref : *refs) (*scratch)[count[key_byte(ref, byte)]++] = ref;
    refs->swap(*scratch);
  }
}

void batch_builder_c::start(std::span<const uint32_t> family_ids) {
  m_family_ids.assign(family_ids.begin(), family_ids.end());
  m_num_families = static_cast<uint32_t>(family_ids.size());
  m_refs.resize(m_num_families);
  for (auto &refs : m_refs) refs.clear();
  start_batch();
}

void batch_builder_c::start_batch() {
  m_used = BATCH_HEADER_LEN;
  m_operands = 0;
  if (m_batch.size() < BATCH_HEADER_LEN) m_batch.resize(4096);
}

// The operand's place in the batch; its bytes are the caller's to write at once.
char *batch_builder_c::append_operand(uint32_t family_id, const sample_ref_t &ref, size_t length) {
  const size_t needed = m_used + 1 + 3 * MAX_VARINT_LEN + KEY_LEN + length;
  if (m_batch.size() < needed) m_batch.resize(std::max(needed, m_batch.size() * 2));
  char *at = m_batch.data() + m_used;
  if (family_id == 0) {
    *at++ = TAG_MERGE;
  } else {
    *at++ = TAG_FAMILY_MERGE;
    at = put_varint(at, family_id);
  }
  *at++ = KEY_LEN;
  make_key(__builtin_bswap64(ref.sort_id), ref.floor_s, at);
  at = put_varint(at + KEY_LEN, static_cast<uint32_t>(length));
  m_used = static_cast<size_t>(at - m_batch.data()) + length;
  ++m_operands;
  return at;
}

void batch_builder_c::append_group(uint32_t family_id, std::span<const sample_ref_t> group,
                                   std::span<const nom_sample_t> samples) {
  uint8_t type = metric_to_nom_type(samples[group.front().index].type);
  for (const sample_ref_t &ref : group.subspan(1)) {
    const uint8_t next = metric_to_nom_type(samples[ref.index].type);
    if (next != type) type = widened_type(type, next);
  }
  const size_t length = HEADER_LEN + group.size() * measurement_size(type);
  char *const operand = append_operand(family_id, group.front(), length);
  const rocks_entry_header_t header{0, type, static_cast<uint32_t>(group.size())};
  memcpy(operand, &header, sizeof header);
  char *const at = operand + HEADER_LEN;
  switch (type) {
    case NOM_TYPE_INT32:
      put_measurements<int32_t>(at, group, samples);
      break;
    case NOM_TYPE_UINT32:
      put_measurements<uint32_t>(at, group, samples);
      break;
    case NOM_TYPE_INT64:
      put_measurements<int64_t>(at, group, samples);
      break;
    case NOM_TYPE_UINT64:
      put_measurements<uint64_t>(at, group, samples);
      break;
    default:
      put_measurements<double>(at, group, samples);
      break;
  }
  *operand = static_cast<char>(record_checksum(operand, length));
}

void batch_builder_c::write_batch(const write_f &write) {
  memset(m_batch.data(), 0, BATCH_HEADER_LEN);
  memcpy(m_batch.data() + 8, &m_operands, sizeof m_operands);
  write({m_batch.data(), m_used}, m_operands);
  start_batch();
}

void batch_builder_c::finish(const write_f &write) {
  if (m_operands != 0) write_batch(write);
  if (m_batch.size() > KEPT_BUFFER_LEN) m_batch = {};
}

void batch_builder_c::write_numeric(std::span<const nom_sample_t> samples, const write_f &write) {
  for (uint32_t family = 0; family < m_num_families; ++family) {
    auto &refs = m_refs[family];
    if (refs.empty()) continue;
    sort_refs(&refs, &m_scratch);
    for (size_t begin = 0, end; begin < refs.size(); begin = end) {
      for (end = begin + 1; end < refs.size() && same_key(refs[begin], refs[end]);) ++end;
      append_group(m_family_ids[family], {&refs[begin], end - begin}, samples);
      if (m_used >= FULL_BATCH_LEN) write_batch(write);
    }
  }
  finish(write);
}

void batch_builder_c::write_each(const std::function<void(uint32_t index, std::string *operand)> &fill,
                                 const write_f &write) {
  std::string operand;
  for (uint32_t family = 0; family < m_num_families; ++family) {
    auto &refs = m_refs[family];
    if (refs.empty()) continue;
    sort_refs(&refs, &m_scratch);
    for (const sample_ref_t &ref : refs) {
      operand.clear();
      fill(ref.index, &operand);
      operand[0] = static_cast<char>(record_checksum(operand.data(), operand.size()));
      memcpy(append_operand(m_family_ids[family], ref, operand.size()), operand.data(), operand.size());
      if (m_used >= FULL_BATCH_LEN) write_batch(write);
    }
  }
  finish(write);
}

}  // namespace velmar_db_raw_nom
