// Walks over a whole database.

#include <rocksdb/c.h>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {
namespace {

// One family's records in key order.
class family_scan_c {
 public:
  family_scan_c(rocksdb_t *db, rocksdb_column_family_handle_t *family)
      : m_options(rocksdb_readoptions_create()) {
    rocksdb_readoptions_set_fill_cache(m_options, 0);
    m_iter = rocksdb_create_iterator_cf(db, m_options, family);
    rocksdb_iter_seek_to_first(m_iter);
  }
  ~family_scan_c() {
    rocksdb_iter_destroy(m_iter);
    rocksdb_readoptions_destroy(m_options);
  }
  family_scan_c(const family_scan_c &) = delete;
  family_scan_c &operator=(const family_scan_c &) = delete;

  // On a key of 12 bytes; others are passed over.
  bool is_valid() {
    for (; rocksdb_iter_valid(m_iter); rocksdb_iter_next(m_iter)) {
      if (key().size() == KEY_LEN) return true;
      krel_log(krel_error, "ERROR: %s\n", "Bad nomdb key length");
    }
    return false;
  }
  // False, and a line in the log, when the walk ended by a failed read.
  bool is_whole() {
    velmar_db_admin::rocksdb_error_c error;
    rocksdb_iter_get_error(m_iter, error.ptr());
    if (error) krel_log(krel_error, "ERROR: nomdb scan: %s\n", error.text());
    return !error;
  }
  std::string_view key() const {
    size_t length;
    const char *const data = rocksdb_iter_key(m_iter, &length);
    return {data, length};
  }
  std::string_view value() const {
    size_t length;
    const char *const data = rocksdb_iter_value(m_iter, &length);
    return {data, length};
  }
  uint64_t id() const { return id_from_key(key().data()); }
  void next() { rocksdb_iter_next(m_iter); }
  uint32_t floor_s() const {
    uint32_t floor = 0;
    krel_assert(timestamp_from_key(key(), &floor));
    return floor;
  }
  // Behind the last hour that this metric can have.
  void skip_metric() { seek(id(), 0xffffffff); }
  // To that hour of the same metric when the record lies before it.
  bool skip_carried(uint64_t start_s) {
    if (floor_s() + uint64_t{RECORD_SIZE_S} > start_s) return false;
    seek(id(), static_cast<uint32_t>(start_s / RECORD_SIZE_S * RECORD_SIZE_S));
    return true;
  }

 private:
  void seek(uint64_t surrogate_id, uint32_t to_floor_s) {
    char to[KEY_LEN];
    make_key(surrogate_id, to_floor_s, to);
    rocksdb_iter_seek(m_iter, to, KEY_LEN);
  }

  rocksdb_readoptions_t *m_options;
  rocksdb_iterator_t *m_iter;
};

}  // namespace

void data_db_c::accumulate_all_primary_keys(const std::function<void(uint64_t)> &accumulator) {
  if (!open_shard()) return;
  for (rocksdb_column_family_handle_t *family : m.column_family_handles) {
    family_scan_c scan(m.db, family);
    while (scan.is_valid()) {
      if (scan.skip_carried(m_start_ms / 1000)) continue;
      accumulator(scan.id());
      scan.skip_metric();
    }
    scan.is_whole();
  }
}

bool data_db_c::stream_for_reconstitute(uint64_t start_s, uint64_t end_s, void *closure,
                                        send_metric_f send_metric, send_block_f send_block) {
  if (!open_shard()) return false;
  for (rocksdb_column_family_handle_t *family : m.column_family_handles) {
    family_scan_c scan(m.db, family);
    bool have_metric = false;
    uint64_t metric = 0;
    while (scan.is_valid()) {
      if (scan.skip_carried(m_start_ms / 1000)) continue;
      if (!have_metric || scan.id() != metric) {
        have_metric = true;
        metric = scan.id();
        const db::raw::reconstitute_metric_e wanted = send_metric(closure, metric);
        if (wanted == db::raw::reconstitute_metric_e::stop) return false;
        if (wanted == db::raw::reconstitute_metric_e::skip) {
          scan.skip_metric();
          continue;
        }
      }
      const uint32_t floor_s = scan.floor_s();
      if (floor_s >= start_s && floor_s < end_s) {
        if (const char *bad = record_is_bad(m_datatype, scan.key(), scan.value())) {
          krel_log(krel_error, "ERROR: %s\n", bad);
        } else if (!send_block(closure, metric, floor_s, scan.value())) {
          return false;
        }
      }
      scan.next();
    }
    if (!scan.is_whole()) return false;
  }
  return true;
}

}  // namespace velmar_db_raw_nom
