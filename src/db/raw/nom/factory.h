#pragma once
// Opens the databases of a raw store's shards.

#include "db/raw/nom/data_db.h"
#include "db/raw/nom/raw_interfaces.h"

namespace velmar_db_raw_nom {

// A shard's open database.
class handle_c : public db::raw::raw_rollable_c {
 public:
  explicit handle_c(std::unique_ptr<data_db_c> data_db) : m_db(std::move(data_db)) {}
  db::raw::raw_reader_asynch_c *get_reader_asynch() override { return m_db.get(); }
  db::raw::raw_writer_asynch_c *get_writer_asynch() override { return m_db.get(); }
  bool write_record(uint64_t surrogate_id, uint32_t block_ts_s, std::string_view record,
                    db::raw::nomdb_type_e kind) override {
    return m_db->write_record(surrogate_id, block_ts_s, record, kind);
  }
  void flush() override { m_db->flush(); }
  size_t get_num_families() const override { return m_db->get_num_column_families(); }
  std::unique_ptr<db::raw::raw_record_cursor_c> create_record_cursor(size_t family,
                                                                     db::raw::cursor_use_e use) override {
    return m_db->create_record_cursor(family, use);
  }
  data_db_c &get_data_db() { return *m_db; }

 private:
  const std::unique_ptr<data_db_c> m_db;
};

// Safe from any thread.
class factory_c : public db::raw::raw_rollable_factory_c {
 public:
  // The buffer size and the start of `params` are replaced at each open, by the configuration's and the
  // shard's.
  explicit factory_c(const data_db_params_t &params) : m_params(params) {}
  std::shared_ptr<db::raw::raw_rollable_c> open(const std::string &shard_path, uint64_t start_s) override {
    return open_priv(shard_path, start_s);
  }
  std::shared_ptr<handle_c> open_priv(const std::string &shard_path, uint64_t start_s = 0);

 private:
  const data_db_params_t m_params;
};

}  // namespace velmar_db_raw_nom
