// Walking all of a family's records, for who reads the whole shard.

#include <rocksdb/c.h>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {

namespace {

constexpr size_t READAHEAD_BYTES = 2 << 20;

class record_cursor_c : public db::raw::raw_record_cursor_c {
 public:
  record_cursor_c(rocksdb_t *db, rocksdb_column_family_handle_t *family, db::raw::cursor_use_e use)
      : m_options(rocksdb_readoptions_create()) {
    rocksdb_readoptions_set_fill_cache(m_options, 0);
    if (use == db::raw::cursor_use_e::all_records)
      rocksdb_readoptions_set_readahead_size(m_options, READAHEAD_BYTES);
    m_iter = rocksdb_create_iterator_cf(db, m_options, family);
  }
  ~record_cursor_c() override {
    rocksdb_iter_destroy(m_iter);
    rocksdb_readoptions_destroy(m_options);
  }
  record_cursor_c(const record_cursor_c &) = delete;
  record_cursor_c &operator=(const record_cursor_c &) = delete;

  void seek_to_first() override { rocksdb_iter_seek_to_first(m_iter); }
  void seek(uint64_t surrogate_id) override { seek_hour(surrogate_id, 0); }
  void skip_metric() override {
    if (get_key().size() == KEY_LEN)
      seek_hour(id_from_key(get_key().data()), UINT32_MAX);
    else
      next();
  }
  void next() override { rocksdb_iter_next(m_iter); }
  bool is_valid() const override { return rocksdb_iter_valid(m_iter) != 0; }
  std::string_view get_key() const override {
    size_t length;
    const char *const key = rocksdb_iter_key(m_iter, &length);
    return {key, length};
  }
  std::string_view get_record() const override {
    size_t length;
    const char *const record = rocksdb_iter_value(m_iter, &length);
    return {record, length};
  }
  std::string get_error() const override {
    velmar_db_admin::rocksdb_error_c error;
    rocksdb_iter_get_error(m_iter, error.ptr());
    return error ? error.text() : "";
  }

 private:
  void seek_hour(uint64_t surrogate_id, uint32_t floor_s) {
    char key[KEY_LEN];
    make_key(surrogate_id, floor_s, key);
    rocksdb_iter_seek(m_iter, key, KEY_LEN);
  }

  rocksdb_readoptions_t *const m_options;
  rocksdb_iterator_t *m_iter;
};

}  // namespace

std::unique_ptr<db::raw::raw_record_cursor_c> data_db_c::create_record_cursor(size_t family,
                                                                              db::raw::cursor_use_e use) {
  krel_assert(m_open.load() && family < m.column_family_handles.size());
  return std::make_unique<record_cursor_c>(m.db, m.column_family_handles[family], use);
}

}  // namespace velmar_db_raw_nom
