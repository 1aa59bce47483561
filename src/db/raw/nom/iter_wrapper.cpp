#include "db/raw/nom/iter_wrapper.h"

#include <rocksdb/c.h>

#include <algorithm>

#include "db/admin/rocksdb_error.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {

using db::raw::raw_reader_seek_e;
using db::raw::SEEK_EXACT;
using db::raw::SEEK_NEXT_ON_MISS;
using db::raw::SEEK_PREV_ON_MISS;

const char *record_is_bad(nom_merge_type_e datatype, std::string_view key, std::string_view record) {
  if (key.size() != KEY_LEN) return "Bad nomdb key length";
  if (!has_right_checksum(record)) return "Bad nomdb record checksum";
  const unsigned type = header_of(record).type;
  if (datatype == numeric && !is_numeric_type(type)) return "Bad nomdb numeric record datatype";
  if (datatype == histogram && !is_histogram_type(type)) return "Bad nomdb histogram record datatype";
  if (!is_well_formed(record)) return "Bad nomdb record length";
  return nullptr;
}

void iter_wrapper_c::readoptions_free_t::operator()(rocksdb_readoptions_t *options) const {
  rocksdb_readoptions_destroy(options);
}
void iter_wrapper_c::iterator_free_t::operator()(rocksdb_iterator_t *iter) const {
  rocksdb_iter_destroy(iter);
}

// The bounds keep RocksDB from merging records of the neighbours.
iter_wrapper_c::iter_wrapper_c(nom_merge_type_e datatype, rocksdb_t *db, rocksdb_column_family_handle_t *family,
                               uint64_t surrogate_id)
    : m_datatype(datatype), m_surrogate_id(surrogate_id), m_read_options(rocksdb_readoptions_create()) {
  make_key(surrogate_id, 0, m_lower_bound);
  make_key(surrogate_id, 0xffffffff, m_upper_bound);
  rocksdb_readoptions_set_iterate_lower_bound(m_read_options.get(), m_lower_bound, KEY_LEN);
  rocksdb_readoptions_set_iterate_upper_bound(m_read_options.get(), m_upper_bound, KEY_LEN);
  m_iter.reset(rocksdb_create_iterator_cf(db, m_read_options.get(), family));
}

iter_wrapper_c::iter_wrapper_c(nom_merge_type_e datatype, uint64_t surrogate_id, uint32_t block_ts_s,
                               std::string_view block)
    : m_datatype(datatype), m_surrogate_id(surrogate_id) {
  char key[KEY_LEN];
  make_key(surrogate_id, block_ts_s, key);
  take_record({key, KEY_LEN}, block);
}

iter_wrapper_c::~iter_wrapper_c() = default;

void iter_wrapper_c::take_record(std::string_view key, std::string_view record) {
  if (record.size() > m_buf_len) {
    m_buf_len = std::max(record.size(), 2 * m_buf_len);
    m_val_data = std::make_unique_for_overwrite<char[]>(m_buf_len);
  }
  memcpy(m_key_data, key.data(), KEY_LEN);
  memcpy(m_val_data.get(), record.data(), record.size());
  m_val_len = record.size();
  m_re = header_of(record);
  krel_assert(timestamp_from_key(key, &m_block_ts_s));
}

uint32_t iter_wrapper_c::bits_at(uint32_t index) const {
  uint32_t bits;
  memcpy(&bits, m_val_data.get() + HEADER_LEN + index * measurement_size(m_re.type), sizeof bits);
  return bits;
}

bool iter_wrapper_c::end() {
  m_current_measurement_index = NO_INDEX;
  return false;
}

void iter_wrapper_c::rocks_db_iter_advance() {
  rocksdb_iter_next(m_iter.get());
}
void iter_wrapper_c::rocks_db_iter_retreat() {
  rocksdb_iter_prev(m_iter.get());
}

// Copies the record that the iterator stands on.
iter_wrapper_c::update_e iter_wrapper_c::update_key_and_value() {
  if (!rocksdb_iter_valid(m_iter.get())) {
    velmar_db_admin::rocksdb_error_c error;
    rocksdb_iter_get_error(m_iter.get(), error.ptr());
    if (error) {
      m_error = error.text();
      krel_log(krel_error, "ERROR: nomdb read of surrogate %lu: %s\n", m_surrogate_id, error.text());
    }
    return update_e::end;
  }
  size_t key_len, val_len;
  const char *const key_data = rocksdb_iter_key(m_iter.get(), &key_len);
  if (key_len >= sizeof m_surrogate_id && id_from_key(key_data) != m_surrogate_id) return update_e::end;
  const char *const val_data = rocksdb_iter_value(m_iter.get(), &val_len);
  if (const char *bad = record_is_bad(m_datatype, {key_data, key_len}, {val_data, val_len})) {
    krel_log(krel_error, "ERROR: %s\n", bad);
    return update_e::bad;
  }
  take_record({key_data, key_len}, {val_data, val_len});
  return m_re.entry_count == 0 ? update_e::bad : update_e::good;
}

// From where the iterator stands to the first record that can be read, and to its near end.
bool iter_wrapper_c::settle(bool forward) {
  for (;;) {
    switch (update_key_and_value()) {
      case update_e::good:
        m_current_measurement_index = forward ? 0 : m_re.entry_count - 1;
        return true;
      case update_e::end:
        return end();
      case update_e::bad:
        break;
    }
    forward ? rocks_db_iter_advance() : rocks_db_iter_retreat();
  }
}

bool iter_wrapper_c::leave_block(bool forward) {
  if (m_iter == nullptr) return end();
  forward ? rocks_db_iter_advance() : rocks_db_iter_retreat();
  return settle(forward);
}

bool iter_wrapper_c::step(bool forward) {
  if (!is_valid()) return end();
  if (forward ? m_current_measurement_index + 1 < m_re.entry_count : m_current_measurement_index > 0) {
    m_current_measurement_index += forward ? 1 : -1;
    return true;
  }
  return leave_block(forward);
}

// The index of the offset in the sorted block, or as the mode says; NO_INDEX when the block has none.
uint32_t iter_wrapper_c::seek_to_offset(uint64_t requested_offset_ms, raw_reader_seek_e seek) const {
  krel_assert(requested_offset_ms <= UINT32_MAX);
  uint32_t low = 0, high = m_re.entry_count;  // the first at or after the offset
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (offset_of(bits_at(middle)) < requested_offset_ms) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low < m_re.entry_count && offset_of(bits_at(low)) == requested_offset_ms) return low;
  if (seek == SEEK_NEXT_ON_MISS && low < m_re.entry_count) return low;
  if (seek == SEEK_PREV_ON_MISS && low > 0) return low - 1;
  return NO_INDEX;
}

bool iter_wrapper_c::find(uint64_t ts_ms, raw_reader_seek_e seek) {
  if (ts_ms >= TIME_LIMIT_MS) {
    if (seek != SEEK_PREV_ON_MISS) return end();
    ts_ms = TIME_LIMIT_MS - 1;
  }
  const uint64_t offset_ms = ts_ms % RECORD_SIZE_MS;
  const bool forward = seek != SEEK_PREV_ON_MISS;
  const auto wanted_floor_s = static_cast<uint32_t>((ts_ms - offset_ms) / 1000);
  if (m_iter == nullptr) {
    if (wanted_floor_s == m_block_ts_s) {
      m_current_measurement_index = seek_to_offset(offset_ms, seek);
    } else if (seek == SEEK_EXACT || m_re.entry_count == 0 || forward == (wanted_floor_s > m_block_ts_s)) {
      m_current_measurement_index = NO_INDEX;
    } else {
      m_current_measurement_index = forward ? 0 : m_re.entry_count - 1;
    }
    return is_valid() || end();
  }
  char key[KEY_LEN];
  make_key(m_surrogate_id, wanted_floor_s, key);
  if (forward) {
    rocksdb_iter_seek(m_iter.get(), key, KEY_LEN);
  } else {
    rocksdb_iter_seek_for_prev(m_iter.get(), key, KEY_LEN);
  }
  size_t key_len = 0;
  const char *const found =
      rocksdb_iter_valid(m_iter.get()) ? rocksdb_iter_key(m_iter.get(), &key_len) : nullptr;
  if (found != nullptr && std::string_view(found, key_len) == std::string_view(key, KEY_LEN)) {
    if (update_key_and_value() == update_e::good) {
      m_current_measurement_index = seek_to_offset(offset_ms, seek);
      if (is_valid()) return true;
    }
    if (seek == SEEK_EXACT) return end();
    forward ? rocks_db_iter_advance() : rocks_db_iter_retreat();
  } else if (seek == SEEK_EXACT) {
    krel_log(krel_debug, "Didn't find a block for that timestamp\n");
    return end();
  }
  return settle(forward);
}

bool iter_wrapper_c::get_current_value(nom_position_value_t *out, std::string *error) const {
  krel_assert(is_valid());
  const char *at = m_val_data.get() + HEADER_LEN + m_current_measurement_index * measurement_size(m_re.type);
  uint32_t bits;
  memcpy(&bits, at, sizeof bits);
  at += sizeof bits;
  out->ts_ms = m_block_ts_s * 1000ull + offset_of(bits);
  out->generation = static_cast<uint16_t>(generation_of(bits));
  out->value = {};
  out->value.type = static_cast<velmar_metric_type_t>(nom_to_metric_type(m_re.type));
  out->value.is_null = is_null_of(bits);
  switch (m_re.type) {
    case NOM_TYPE_INT32:
    case NOM_TYPE_UINT32:
      memcpy(&out->value.storage, at, 4);
      return true;
    case NOM_TYPE_INT64:
    case NOM_TYPE_UINT64:
    case NOM_TYPE_DOUBLE:
      memcpy(&out->value.storage, at, 8);
      return true;
    case NOM_TYPE_HISTOGRAM:
    case NOM_TYPE_HISTOGRAM_CUMUL: {
      uint64_t place;
      memcpy(&place, at, sizeof place);
      const char *const blob = m_val_data.get() + HEADER_LEN + m_re.entry_count * MAX_MEASUREMENT_LEN + place;
      uint64_t length;
      memcpy(&length, blob, sizeof length);
      m_bytes = {length, blob + BLOB_LENGTH_LEN};
      out->value.storage.v_bytes = &m_bytes;
      return true;
    }
    default:
      *error = "Compressed hist shard values not yet supported";
      return false;
  }
}

namespace {

template <typename T>
size_t copy_numbers(const char *from, size_t count, uint64_t floor_ms, uint64_t end_ms,
                    db::raw::nom_sample_t sample, db::raw::nom_sample_t *to) {
  for (size_t i = 0; i < count; i++, from += sizeof(measurement_t<T>)) {
    measurement_t<T> measurement;
    memcpy(&measurement, from, sizeof measurement);
    sample.ts_ms = floor_ms + offset_of(measurement.bits);
    if (sample.ts_ms >= end_ms) return i;
    sample.bits = measurement.value;
    sample.generation = static_cast<uint16_t>(generation_of(measurement.bits));
    sample.is_null = is_null_of(measurement.bits);
    to[i] = sample;
  }
  return count;
}

}  // namespace

size_t iter_wrapper_c::take_numeric(uint64_t end_ms, std::span<db::raw::nom_sample_t> out) {
  krel_assert(m_datatype == numeric && is_valid());
  const size_t size = measurement_size(m_re.type);
  const char *const from = m_val_data.get() + HEADER_LEN + m_current_measurement_index * size;
  const size_t room = std::min<size_t>(m_re.entry_count - m_current_measurement_index, out.size());
  const db::raw::nom_sample_t blank = {m_surrogate_id, 0, 0, 0, nom_to_metric_type(m_re.type), false};
  const uint64_t floor_ms = m_block_ts_s * 1000ull;
  const size_t taken = size == sizeof(uint32_measurement_t)
                           ? copy_numbers<uint32_t>(from, room, floor_ms, end_ms, blank, out.data())
                           : copy_numbers<uint64_t>(from, room, floor_ms, end_ms, blank, out.data());
  m_current_measurement_index += static_cast<uint32_t>(taken);
  return taken;
}

bool iter_wrapper_c::replace_record(std::string_view record) {
  if (const char *bad = record_is_bad(m_datatype, get_key(), record)) {
    krel_log(krel_error, "ERROR: %s\n", bad);
    return false;
  }
  const uint32_t offset = offset_of(bits_at(m_current_measurement_index));
  take_record(std::string(get_key()), record);
  m_current_measurement_index = seek_to_offset(offset, SEEK_NEXT_ON_MISS);
  return true;
}

uint32_t iter_wrapper_c::get_last_measurement_index_before(uint64_t end_ms) const {
  const uint64_t floor_ms = m_block_ts_s * 1000ull;
  if (end_ms <= floor_ms) return NO_INDEX;
  const uint64_t last_offset = std::min<uint64_t>(end_ms - floor_ms - 1, RECORD_SIZE_MS - 1);
  return seek_to_offset(last_offset, SEEK_PREV_ON_MISS);
}

bool iter_wrapper_c::delete_from_curr_thru_index(uint32_t index) {
  const uint32_t first = m_current_measurement_index, count = m_re.entry_count;
  if (first >= count || index >= count || index < first) {
    krel_log(krel_error, "Bad deletion range %u to %u(%u)\n", first, index, count);
    return false;
  }
  const std::string_view old(m_val_data.get(), m_val_len);
  const size_t size = measurement_size(m_re.type), blobs = HEADER_LEN + size * count;
  const size_t cut_begin = HEADER_LEN + size * first, cut_end = HEADER_LEN + size * (index + 1);
  std::string kept;
  kept.reserve(m_val_len);
  kept.append(old.substr(0, cut_begin)).append(old.substr(cut_end, blobs - cut_end));
  if (m_datatype == histogram) {
    // Blobs lie in the order of their measurements: what was cut is one stretch of them.
    const auto place_of = [&](uint32_t i) {
      uint64_t place = m_val_len - blobs;
      if (i < count) memcpy(&place, m_val_data.get() + HEADER_LEN + i * size + 4, sizeof place);
      return place;
    };
    const uint64_t blob_begin = place_of(first), blob_end = place_of(index + 1);
    for (size_t at = cut_begin; at < kept.size(); at += size) {
      uint64_t place;
      memcpy(&place, &kept[at + 4], sizeof place);
      place -= blob_end - blob_begin;
      memcpy(&kept[at + 4], &place, sizeof place);
    }
    kept.append(old.substr(blobs, blob_begin)).append(old.substr(blobs + blob_end));
  }
  const uint32_t left = count - (index + 1 - first);
  memcpy(&kept[2], &left, sizeof left);
  kept[0] = static_cast<char>(record_checksum(kept.data(), kept.size()));
  take_record(std::string(get_key()), kept);
  m_current_measurement_index = first < left ? first : NO_INDEX;
  return true;
}

}  // namespace velmar_db_raw_nom
