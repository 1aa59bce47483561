#pragma once
// One shard's NOM database: samples go in as RocksDB merges, one record for a metric and hour comes out.

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "db/admin/rocksdb_admin.h"
#include "db/raw/nom/iter_wrapper.h"
#include "db/raw/nom/nom_batch.h"
#include "db/raw/nom/nom_merge.h"
#include "db/raw/nom/nom_stats.h"
#include "db/raw/nom/raw_interfaces.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"

struct rocksdb_comparator_t;
struct rocksdb_mergeoperator_t;
struct rocksdb_writebatch_t;
struct rocksdb_writeoptions_t;

namespace velmar_db_raw_nom {

struct position_t;

struct data_db_params_t {
  nom_merge_type_e datatype = numeric;
  conflict_resolver_e conflict_resolver = conflict_resolver_e::last_abs_max;
  const velmar_db_admin_rocksdb_manager_t *manager = nullptr;
  const velmar_db_admin_rocksdb_type_t *type = nullptr;  // "nom"
  uint64_t max_db_write_buffer_size = 16777216;
  uint64_t start_s = 0;  // of the shard: positions never stand on a sample before it
};

// Threads: any number may write and read at once. Everything blocks on the disk.
class data_db_c : public db::raw::raw_reader_asynch_c,
                  public db::raw::raw_writer_asynch_c,
                  public db::raw::raw_iter_manager_asynch_c {
 public:
  // `location` is the database's own directory. Nothing is opened yet.
  data_db_c(std::string location, const data_db_params_t &params);
  ~data_db_c() override;  // every find has been closed
  data_db_c(const data_db_c &) = delete;
  data_db_c &operator=(const data_db_c &) = delete;

  // ---- opening
  // Makes the options; before anything below. Idempotent.
  void setup_shard();
  // Makes the database when there is none: beside its place, and whole when it gets its name. Failure is fatal.
  void check_for_and_create_shard();
  // Opens once; false, and a line in the log, when that fails.
  bool open_shard();
  // Of a database that is not open. False, and a line in the log, when it cannot be repaired.
  bool repair_shard();
  void flush();

  // ---- writing
  // Samples that cannot be stored are logged and skipped, and count as written.
  void write_set_asynch(db::raw::raw_entry_c *entries, size_t count,
                        db::raw::is_raw_write_closure_t *closure) override;
  void write_prev_set_asynch(db::raw::raw_entry_c *entries, size_t count,
                             db::raw::is_raw_write_closure_t *closure) override {
    write_set_asynch(entries, count, closure);
  }
  void write_numeric_asynch(std::span<const db::raw::nom_sample_t> samples,
                            db::raw::is_raw_write_closure_t *closure) override;
  bool write_record(uint64_t surrogate_id, uint32_t block_ts_s, std::string_view record,
                    db::raw::nomdb_type_e kind);

  // ---- reading
  std::unique_ptr<db::raw::raw_record_cursor_c> create_record_cursor(size_t family, db::raw::cursor_use_e use);
  void find_asynch(const db::raw::raw_key_c &key, db::raw::raw_reader_seek_e seek,
                   db::raw::raw_iter_found_f found, void *closure) override;
  void next_asynch(db::raw::raw_iter_reader_asynch_c *reader) override;
  void prev_asynch(db::raw::raw_iter_reader_asynch_c *reader) override;
  void close_asynch(db::raw::raw_iter_reader_asynch_c *reader) override;
  bool read_numeric(uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                    const numeric_samples_f &on_samples, std::string *error) override;
  std::optional<db::raw::nom_sample_t> find_last_numeric(uint64_t surrogate_id, uint64_t from_ms,
                                                         uint64_t before_ms, nulls_e nulls,
                                                         std::string *error) override;
  // The position itself, or null; it must go before the database does.
  std::unique_ptr<iter_wrapper_c> find_now(uint64_t surrogate_id, uint64_t ts_ms,
                                           db::raw::raw_reader_seek_e seek);
  void accumulate_all_primary_keys(const std::function<void(uint64_t)> &accumulator) override;
  bool stream_for_reconstitute(uint64_t start_s, uint64_t end_s, void *closure, send_metric_f send_metric,
                               send_block_f send_block) override;

  const std::string &get_location() const { return m_location; }
  nom_merge_type_e get_datatype() const { return m_datatype; }
  size_t get_num_column_families() const { return m_family_ids.size(); }
  const velmar_db_admin_rocksdb_handle_t &get_handle() const { return m; }

 protected:
  // What the retries of a write stand on; tests break the disk here. False with the reason.
  virtual bool try_write(rocksdb_writebatch_t *batch, std::string *error);
  virtual void pause_s(unsigned seconds);

 private:
  struct merge_state_t {
    conflict_resolver_e resolver;
    nom_stats_t stats;
  };
  friend struct merge_operators_t;

  rocksdb_mergeoperator_t *create_merge_operator();
  void cleanup_location_dir();
  std::vector<std::string> list_families(std::string *error);
  void create_database(const std::string &path);
  bool open_all_families();

  void merge_set(db::raw::raw_entry_c *entries, size_t count);
  void merge_set_hist(db::raw::raw_entry_c *entries, size_t count);
  void merge_samples(std::span<const db::raw::nom_sample_t> samples);
  void store(const char *function, std::string_view batch, size_t count);
  void count_put(size_t tuples, const krel_perftimer_t &timer);
  bool refuse_without_shard(size_t count, db::raw::is_raw_write_closure_t *closure);

  rocksdb_column_family_handle_t *family_handle(uint64_t surrogate_id) const;
  void invoke_cb(position_t *position);
  void move(position_t *position, bool forward);
  void delete_passed(position_t *position);
  bool crop_block(iter_wrapper_c *iter, uint64_t end_ms);
  void delete_block(const iter_wrapper_c &iter);

  const std::string m_location;
  const nom_merge_type_e m_datatype;
  const velmar_db_admin_rocksdb_manager_t *const m_manager;
  const velmar_db_admin_rocksdb_type_t *const m_type;
  const uint64_t _max_db_write_buffer_size;
  const uint64_t m_start_ms;
  merge_state_t m_merge_state;  // read by the merge operators until the database is closed

  krel_mutex_c m_fullopen_lock;  // one thread opens; what it fills is fixed once m_open is seen
  std::atomic<bool> m_open{false};
  bool m_initialized = false;
  rocksdb_comparator_t *m_comparator = nullptr;
  velmar_db_admin_rocksdb_handle_t m;
  std::vector<uint32_t> m_family_ids;  // RocksDB's, by our index

  // Shared by writers of samples, exclusive to who reads a record, cuts it and puts it back.
  krel_shared_mutex_c m_crop_lock;
  rocksdb_writeoptions_t *m_write_options = nullptr;
};

}  // namespace velmar_db_raw_nom
