#include "db/admin/rocksdb_admin.h"

#include <gtest/gtest.h>
#include <rocksdb/c.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "db/admin/rocksdb_options.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "util/concurrency/tolv_asynch.h"
#include "util/concurrency/tolv_asynch_mock.h"

namespace {

namespace fs = std::filesystem;

struct journal_t : velmar_db_admin_repair_journal_c {
  void write(krel_json_object *entry) override { entries.emplace_back(krel_json_object_to_json_string(entry)); }
  std::vector<std::string> entries;
};

class rocksdb_admin : public ::testing::Test {
 protected:
  rocksdb_admin() {
    velmar_db_admin_rocksdb_init_types(&m_types);
    m_type = velmar_db_rocksdb_create_type(&m_types);
    velmar_db_admin_rocksdb_init_manager(&m_manager, &m_types, &m_journal, nullptr);
  }
  ~rocksdb_admin() override { velmar_db_admin_rocksdb_uninit(&m_types); }

  velmar_db_admin_rocksdb_handle_ptr open(const char *json) {
    const krel_json_ptr options(krel_json_tokener_parse(json));
    return velmar_db_admin_rocksdb_open(&m_manager, m_type, path(), options.get());
  }
  std::string path() const { return m_dir / "db"; }
  static void put(rocksdb_t *db, const std::string &key, const std::string &value) {
    rocksdb_writeoptions_t *const options = rocksdb_writeoptions_create();
    char *error = nullptr;
    rocksdb_put(db, options, key.data(), key.size(), value.data(), value.size(), &error);
    EXPECT_EQ(error, nullptr);
    rocksdb_writeoptions_destroy(options);
  }
  static std::string get(rocksdb_t *db, const std::string &key) {
    rocksdb_readoptions_t *const options = rocksdb_readoptions_create();
    char *error = nullptr;
    size_t length = 0;
    char *const value = rocksdb_get(db, options, key.data(), key.size(), &length, &error);
    rocksdb_readoptions_destroy(options);
    const std::string found(value != nullptr ? value : "", length);
    rocksdb_free(value);
    return found;
  }

  temp_dir_c m_dir;
  journal_t m_journal;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  velmar_db_admin_rocksdb_type_t *m_type;
};

TEST_F(rocksdb_admin, options_from_json) {
  const krel_json_ptr defaults(velmar_db_rocksdb_create_options_json());
  rocksdb_options_t *options = velmar_db_admin_rocksdb_options_create(m_type, defaults.get());
  EXPECT_EQ(rocksdb_options_get_write_buffer_size(options), 1048576u);
  EXPECT_EQ(rocksdb_options_get_max_write_buffer_number(options), 48);
  EXPECT_EQ(rocksdb_options_get_min_write_buffer_number_to_merge(options), 16);
  EXPECT_EQ(rocksdb_options_get_level0_slowdown_writes_trigger(options), 32);
  EXPECT_EQ(rocksdb_options_get_max_bytes_for_level_multiplier(options), 10.0);
  EXPECT_EQ(rocksdb_options_get_num_levels(options), 6);
  rocksdb_env_t *const env = velmar_db_admin::rocksdb_default_env_factory_c::get_instance().get();
  EXPECT_EQ(rocksdb_env_get_high_priority_background_threads(env), 8);
  velmar_db_admin_rocksdb_options_destroy(options);

  const krel_json_ptr some(krel_json_tokener_parse(
      R"({"set_num_levels": 3, "set_nothing_we_know": [1], "set_disable_data_sync": 1, "env": {"unknown": 2}})"));
  options = velmar_db_admin_rocksdb_options_create(m_type, some.get());
  EXPECT_EQ(rocksdb_options_get_num_levels(options), 3);
  velmar_db_admin_rocksdb_options_destroy(options);

  const log_capture_c log("error");
  const krel_json_ptr wrong(krel_json_tokener_parse(R"({"set_num_levels": "three"})"));
  EXPECT_EQ(velmar_db_admin_rocksdb_options_create(m_type, wrong.get()), nullptr);
  EXPECT_TRUE(log.contains("set_num_levels"));
}

TEST_F(rocksdb_admin, the_block_cache_has_its_default_size) {
  EXPECT_EQ(velmar_db_admin::rocksdb_options_factory_c::get_instance().get_block_cache_capacity(), 2147483648u);
}

TEST_F(rocksdb_admin, opens_new_and_existing_databases_and_logs_to_the_node) {
  const log_capture_c log("rocksdb");
  {
    const auto handle = open("{}");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(open("{}"), nullptr);  // it is locked
    put(handle->db, "key", "value");
  }
  EXPECT_EQ(get(open(R"({"unknown": 1})")->db, "key"), "value");
  EXPECT_TRUE(log.contains("Recovering from manifest file"));
  EXPECT_FALSE(fs::exists(path() + "/LOG"));
  EXPECT_EQ(m_journal.entries.size(), 1u);
}

TEST_F(rocksdb_admin, a_damaged_database_is_noted_down_and_repaired) {
  {
    const auto handle = open("{}");
    put(handle->db, "key", "value");
    velmar_db_admin_rocksdb_release(handle.get());
    velmar_db_admin_rocksdb_release(handle.get());
  }
  std::ofstream(path() + "/CURRENT") << "MANIFEST-999999\n";
  const log_capture_c log("error");
  EXPECT_EQ(open(R"({"set_num_levels":5})"), nullptr);
  EXPECT_TRUE(log.contains("Error opening rocksdb " + path() + " (type rawdb): "));
  ASSERT_EQ(m_journal.entries.size(), 1u);
  const krel_json_ptr entry(krel_json_tokener_parse(m_journal.entries[0]));
  ASSERT_EQ(krel_json_object_array_length(entry.get()), 3u);
  EXPECT_EQ(krel_json_object_get_int(
                krel_json_object_object_get(krel_json_object_array_get_idx(entry.get(), 2), "set_num_levels")),
            5);
  EXPECT_TRUE(velmar_db_admin_rocksdb_repair_cb(&m_types, entry.get()));
  EXPECT_EQ(get(open("{}")->db, "key"), "value");
}

TEST_F(rocksdb_admin, what_is_no_repair_entry_is_refused) {
  for (const char *text : {"{}", "[]", R"(["rawdb","/x"])", R"(["rawdb",1,{}])", R"(["other","/x",{}])", "3"}) {
    const log_capture_c log("error");
    const krel_json_ptr entry(krel_json_tokener_parse(text));
    EXPECT_FALSE(velmar_db_admin_rocksdb_repair_cb(&m_types, entry.get()));
    EXPECT_TRUE(log.contains("ERROR: parsed JSON object (\"")) << text;
    EXPECT_TRUE(log.contains("\") is not a valid rocksdb repair insn.")) << text;
  }
}

TEST_F(rocksdb_admin, manual_compaction_runs_on_the_scheduler) {
  tolv_asynch_mock::factory_c factory;
  tolv_asynch_scheduler_t scheduler = tolv_asynch_create_scheduler(&factory, "compact", 1, false);
  auto *const runner = static_cast<tolv_asynch_mock::runner_c *>(scheduler.runner);
  m_manager.scheduler = &scheduler;
  const auto handle = open("{}");
  rocksdb_flushoptions_t *const flush = rocksdb_flushoptions_create();
  char *error = nullptr;
  for (int i = 0; i < 3; ++i) {
    put(handle->db, "key", std::to_string(i));
    rocksdb_flush(handle->db, flush, &error);
  }
  rocksdb_flushoptions_destroy(flush);
  const auto files_at_level0 = [&] {
    char *const text = rocksdb_property_value(handle->db, "rocksdb.num-files-at-level0");
    const std::string count = text;
    rocksdb_free(text);
    return count;
  };
  velmar_db_admin_rocksdb_compact(handle.get());
  EXPECT_EQ(files_at_level0(), "3");
  EXPECT_EQ(runner->run_all(), 1u);
  EXPECT_EQ(files_at_level0(), "0");
  EXPECT_EQ(get(handle->db, "key"), "2");
  m_manager.scheduler = nullptr;
  tolv_asynch_destroy_scheduler(&scheduler);
}

TEST_F(rocksdb_admin, types_are_named_once_and_by_their_length) {
  const auto add = [&](const char *name, size_t length) {
    velmar_db_admin_rocksdb_add_type(&m_types, name, length, nullptr, nullptr, nullptr);
  };
  EXPECT_DEATH(add("rawdb", 5), "krel_hash_store");
  EXPECT_DEATH(add("other", 4), "rocksdb_type_len == strlen");
}

}  // namespace
