#pragma once
// A position among one metric's records: in a database, or in one block of memory. One thread at a time.
// Records that are bad are logged and passed over.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "db/raw/nom/nom_format.h"
#include "db/raw/nom/nom_sample.h"
#include "db/raw/nom/raw_interfaces.h"
#include "util/raw_record.h"

struct rocksdb_column_family_handle_t;
struct rocksdb_iterator_t;
struct rocksdb_readoptions_t;
struct rocksdb_t;

namespace velmar_db_raw_nom {

constexpr uint32_t NO_INDEX = 0xffffffff;

// What keeps a record from being read, in words; null when it is good.
const char *record_is_bad(nom_merge_type_e datatype, std::string_view key, std::string_view record);

// A sample at a position. `bytes` of a histogram lie in the position's memory.
struct nom_position_value_t {
  uint64_t ts_ms;
  uint16_t generation;
  dorn_record_m_value_t value;
};

class iter_wrapper_c {
 public:
  // Over the records of one metric. The database outlives it.
  iter_wrapper_c(nom_merge_type_e datatype, rocksdb_t *db, rocksdb_column_family_handle_t *family,
                 uint64_t surrogate_id);
  // Over one record, which is copied.
  iter_wrapper_c(nom_merge_type_e datatype, uint64_t surrogate_id, uint32_t block_ts_s, std::string_view block);
  ~iter_wrapper_c();
  iter_wrapper_c(const iter_wrapper_c &) = delete;
  iter_wrapper_c &operator=(const iter_wrapper_c &) = delete;

  // Stands on the sample of that time, else as `seek` says; false: there is none.
  bool find(uint64_t ts_ms, db::raw::raw_reader_seek_e seek);
  // To the next or previous sample; false past the metric's own records.
  bool do_next() { return step(true); }
  bool do_prev() { return step(false); }
  // To the first sample of the next record.
  bool next_block() { return leave_block(true); }
  // Not null when a read of the database failed, which ends the walk like an end of data.
  const std::string &get_error() const { return m_error; }

  // Of the sample it stands on. False: of a kind that cannot be read; `error` says why.
  bool get_current_value(nom_position_value_t *out, std::string *error) const;
  bool is_valid() const { return m_current_measurement_index < m_re.entry_count; }
  // The numbers of the current record from the current one on that lie before end_ms, as many as `out` holds.
  // Their count; the index then stands behind the last of them, which may be the record's end.
  size_t take_numeric(uint64_t end_ms, std::span<db::raw::nom_sample_t> out);

  // ---- the current record, for deleting
  uint64_t get_surrogate_id() const { return m_surrogate_id; }
  uint32_t get_block_ts_s() const { return m_block_ts_s; }
  std::string_view get_key() const { return {m_key_data, KEY_LEN}; }
  std::string_view get_record() const { return {m_val_data.get(), m_val_len}; }
  uint32_t get_current_index() const { return m_current_measurement_index; }
  // Takes another content for the same record; the index stays where the current sample is or would be.
  bool replace_record(std::string_view record);
  // The last sample before that time, within the record; NO_INDEX when there is none.
  uint32_t get_last_measurement_index_before(uint64_t end_ms) const;
  // Removes the current sample up to that one, or up to the last, from the copy of the record; then stands
  // on what follows, if anything. False, with a line in the log, for a range outside the record.
  bool delete_from_curr_thru_index(uint32_t index);
  bool delete_from_curr_to_end() { return delete_from_curr_thru_index(m_re.entry_count - 1); }

 private:
  struct readoptions_free_t {
    void operator()(rocksdb_readoptions_t *options) const;
  };
  struct iterator_free_t {
    void operator()(rocksdb_iterator_t *iter) const;
  };

  bool step(bool forward);
  bool leave_block(bool forward);
  void rocks_db_iter_advance();
  void rocks_db_iter_retreat();
  bool settle(bool forward);
  enum class update_e { good, bad, end };
  update_e update_key_and_value();
  void take_record(std::string_view key, std::string_view record);
  uint32_t seek_to_offset(uint64_t requested_offset_ms, db::raw::raw_reader_seek_e seek) const;
  uint32_t bits_at(uint32_t index) const;
  bool end();

  const nom_merge_type_e m_datatype;
  const uint64_t m_surrogate_id;
  char m_lower_bound[KEY_LEN], m_upper_bound[KEY_LEN];  // the iterator looks at them
  std::unique_ptr<rocksdb_readoptions_t, readoptions_free_t> m_read_options;
  std::unique_ptr<rocksdb_iterator_t, iterator_free_t> m_iter;  // none for a block handed in

  char m_key_data[KEY_LEN] = {};
  std::unique_ptr<char[]> m_val_data;  // kept between records
  size_t m_val_len = 0, m_buf_len = 0;
  uint32_t m_current_measurement_index = NO_INDEX;
  uint32_t m_block_ts_s = 0;
  rocks_entry_header_t m_re = {};
  mutable dorn_record_bytes_t m_bytes = {};
  std::string m_error;
};

}  // namespace velmar_db_raw_nom
