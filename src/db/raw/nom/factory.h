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
  data_db_c &get_data_db() { return *m_db; }

 private:
  const std::unique_ptr<data_db_c> m_db;
};

// Safe from any thread.
class factory_c : public db::raw::raw_rollable_factory_c {
 public:
  // The buffer size of `params` is replaced by the configuration's at each open.
  explicit factory_c(const data_db_params_t &params) : m_params(params) {}
  std::shared_ptr<db::raw::raw_rollable_c> open(const std::string &shard_path) override {
    return open_priv(shard_path);
  }
  std::shared_ptr<handle_c> open_priv(const std::string &shard_path);

 private:
  const data_db_params_t m_params;
};

}  // namespace velmar_db_raw_nom
