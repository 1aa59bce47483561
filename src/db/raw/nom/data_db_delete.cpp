// Deleting while reading: each record that a deleting position passes is removed or cropped.

#include <rocksdb/c.h>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "db/raw/nom/data_db_position.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {

using velmar_db_admin::rocksdb_error_c;

namespace {

krel_log_stream_t *delete_log() {
  static krel_log_stream_t *const stream = krel_log_stream_find("debug/delete");
  return stream;
}

struct slice_free_t {
  void operator()(rocksdb_pinnableslice_t *slice) const { rocksdb_pinnableslice_destroy(slice); }
};

bool report(const rocksdb_error_c &error) {
  if (error) krel_log(krel_error, "Raw delete nomdb error: %s\n", error.text());
  return !error;
}

// Does the key that the position's block should have equal the one it was read under?
bool key_matches(const iter_wrapper_c &iter, uint64_t surrogate_id) {
  char key[KEY_LEN];
  make_key(surrogate_id, iter.get_block_ts_s(), key);
  if (iter.get_key() == std::string_view(key, KEY_LEN)) return true;
  krel_log(krel_error, "Generated delete key %lu:%u doesn't match...\n", surrogate_id, iter.get_block_ts_s());
  krel_log(krel_error, "...current read key %lu:%s - will not delete.\n", id_from_key(iter.get_key().data()),
           std::to_string(iter.get_block_ts_s()).c_str());
  return false;
}

}  // namespace

// Removes from the current sample on what lies before `end_ms`. The record is read again under the lock, so
// that samples written since the position was found stay. True: the position stands on a sample that is left.
bool data_db_c::crop_block(iter_wrapper_c *iter, uint64_t end_ms) {
  const krel_exclusive_lock_c lock(m_crop_lock);
  rocksdb_column_family_handle_t *const family = family_handle(iter->get_surrogate_id());
  const std::string key(iter->get_key());
  rocksdb_readoptions_t *const options = rocksdb_readoptions_create();
  rocksdb_error_c error;
  const std::unique_ptr<rocksdb_pinnableslice_t, slice_free_t> slice(
      rocksdb_get_pinned_cf(m.db, options, family, key.data(), key.size(), error.ptr()));
  rocksdb_readoptions_destroy(options);
  if (!report(error) || slice == nullptr) return false;
  size_t length;
  const char *const bytes = rocksdb_pinnableslice_value(slice.get(), &length);
  if (!iter->replace_record({bytes, length}) || !iter->is_valid()) return false;

  const uint32_t last = iter->get_last_measurement_index_before(end_ms);
  if (last == NO_INDEX || last < iter->get_current_index()) {
    krel_log(delete_log(), "Unable to find end time position in block for delete\n");
    return true;
  }
  if (!iter->delete_from_curr_thru_index(last)) return false;
  const std::string_view left = iter->get_record();
  if (header_of(left).entry_count == 0) {
    rocksdb_delete_cf(m.db, m_write_options, family, key.data(), key.size(), error.ptr());
  } else {
    rocksdb_put_cf(m.db, m_write_options, family, key.data(), key.size(), left.data(), left.size(),
                   error.ptr());
  }
  report(error);
  return iter->is_valid();
}

void data_db_c::delete_block(const iter_wrapper_c &iter) {
  const std::string_view key = iter.get_key();
  rocksdb_error_c error;
  rocksdb_delete_cf(m.db, m_write_options, family_handle(iter.get_surrogate_id()), key.data(), key.size(),
                    error.ptr());
  report(error);
}

// Removes what the position passes, and moves it to the next sample that is left.
void data_db_c::delete_passed(position_t *position) {
  iter_wrapper_c &iter = *position->iter;
  const uint64_t end_s = position->get_end_timestamp_s();
  const uint64_t block_begin = iter.get_block_ts_s(), block_end = block_begin + RECORD_SIZE_S;
  const uint64_t current_ms = position->get_key().get_orig_key().get_timestamp().count();
  if (block_begin >= end_s || current_ms >= end_s * 1000) {
    krel_log(delete_log(), "Not deleting anything because at or beyond end time %lu (%lu-%lu)\n", end_s,
             block_begin, block_end);
    iter.do_next();
    return;
  }
  if (!key_matches(iter, position->get_key().get_surrogate_id())) {
    iter.next_block();
    return;
  }
  if (block_end > end_s || iter.get_current_index() > 0) {
    krel_log(delete_log(), "Deleting partial block up to %lu (%lu-%lu)\n", end_s, block_begin, block_end);
    if (crop_block(&iter, std::min(end_s, block_end) * 1000)) return;
  } else {
    krel_log(delete_log(), "Deleting entire block within %lu (%lu-%lu)\n", end_s, block_begin, block_end);
    delete_block(iter);
  }
  iter.next_block();
}

}  // namespace velmar_db_raw_nom
