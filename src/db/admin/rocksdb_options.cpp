#include "db/admin/rocksdb_options.h"

#include <rocksdb/c.h>

#include <cstdint>
#include <string>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/tolv_json_opt.h"

namespace velmar_db_admin {
namespace {

constexpr size_t BLOCK_SIZE = 131072;
constexpr double BLOOM_BITS_PER_KEY = 12.0;
constexpr uint64_t DEFAULT_BLOCK_CACHE_SIZE = 2147483648;

class rocksdb_options_set_c {
 public:
  rocksdb_options_set_c() {
    m_env_option_set.insert("set_high_priority_background_threads",
                            rocksdb_env_set_high_priority_background_threads);
    auto &s = m_option_set;
    s.insert("env", m_env_option_set,
             {[](rocksdb_options_t *) { return rocksdb_default_env_factory_c::get_instance().get(); }});
    s.insert("increase_parallelism", rocksdb_options_increase_parallelism);
    s.insert("set_max_background_compactions", rocksdb_options_set_max_background_compactions);
    s.insert("set_max_background_flushes", rocksdb_options_set_max_background_flushes);
    s.insert("set_max_log_file_size", rocksdb_options_set_max_log_file_size);
    s.insert("set_write_buffer_size", rocksdb_options_set_write_buffer_size);
    s.insert("set_min_write_buffer_number_to_merge", rocksdb_options_set_min_write_buffer_number_to_merge);
    s.insert("set_max_write_buffer_number", rocksdb_options_set_max_write_buffer_number);
    s.insert("set_level0_stop_writes_trigger", rocksdb_options_set_level0_stop_writes_trigger);
    s.insert("set_level0_slowdown_writes_trigger", rocksdb_options_set_level0_slowdown_writes_trigger);
    s.insert("set_level0_file_num_compaction_trigger", rocksdb_options_set_level0_file_num_compaction_trigger);
    s.insert("set_max_bytes_for_level_base", rocksdb_options_set_max_bytes_for_level_base);
    s.insert("set_max_bytes_for_level_multiplier", rocksdb_options_set_max_bytes_for_level_multiplier);
    s.insert("set_target_file_size_base", rocksdb_options_set_target_file_size_base);
    s.insert("set_use_fsync", rocksdb_options_set_use_fsync);
    s.insert_value<int>("set_disable_data_sync", [](rocksdb_options_t *, int) {});  // gone from RocksDB
    s.insert("set_num_levels", rocksdb_options_set_num_levels);
    s.insert("set_stats_dump_period_sec", rocksdb_options_set_stats_dump_period_sec);
  }
  bool apply(rocksdb_options_t *options, const krel_json_object *json, std::string *error) const {
    return m_option_set.apply(options, json, error);
  }

 private:
  tolv_json_opt::option_set_c<rocksdb_env_t> m_env_option_set;
  tolv_json_opt::option_set_c<rocksdb_options_t> m_option_set;
};

}  // namespace

rocksdb_default_env_factory_c::rocksdb_default_env_factory_c() : m_env(rocksdb_create_default_env()) {}

rocksdb_default_env_factory_c &rocksdb_default_env_factory_c::get_instance() {
  static rocksdb_default_env_factory_c *const instance = new rocksdb_default_env_factory_c;
  return *instance;
}

rocksdb_options_factory_c::rocksdb_options_factory_c() {
  uint64_t cache_size = DEFAULT_BLOCK_CACHE_SIZE;
  krel_conf_get_size(KREL_CONF_ROOT, "//cache/@rocksdb_block_cache_size", &cache_size);
  m_cache = rocksdb_cache_create_lru(cache_size);
  m_table_options = rocksdb_block_based_options_create();
  rocksdb_block_based_options_set_block_size(m_table_options, BLOCK_SIZE);
  rocksdb_block_based_options_set_cache_index_and_filter_blocks(m_table_options, 1);
  rocksdb_block_based_options_set_block_cache(m_table_options, m_cache);
  rocksdb_block_based_options_set_filter_policy(m_table_options,
                                                rocksdb_filterpolicy_create_bloom_full(BLOOM_BITS_PER_KEY));
}

rocksdb_options_factory_c &rocksdb_options_factory_c::get_instance() {
  static rocksdb_options_factory_c *const instance =
      new rocksdb_options_factory_c;  // databases may outlive exit
  return *instance;
}

rocksdb_options_t *rocksdb_options_factory_c::alloc() {
  rocksdb_options_t *const options = rocksdb_options_create();
  rocksdb_options_set_block_based_table_factory(options, m_table_options);
  return options;
}

void rocksdb_options_factory_c::free(rocksdb_options_t *options) {
  if (options != nullptr) rocksdb_options_destroy(options);
}

size_t rocksdb_options_factory_c::get_block_cache_capacity() const {
  return rocksdb_cache_get_capacity(m_cache);
}

bool apply_rocksdb_options(rocksdb_options_t *options, const krel_json_object *json) {
  static const rocksdb_options_set_c set;
  std::string error;
  if (set.apply(options, json, &error)) return true;
  krel_log(krel_error, "ERROR: rocksdb options: %s\n", error.c_str());
  return false;
}

}  // namespace velmar_db_admin

krel_json_object *velmar_db_rocksdb_create_options_json() {
  static constexpr struct {
    const char *key;
    int64_t value;
  } defaults[] = {
      {"increase_parallelism", 16},
      {"set_max_background_compactions", 16},
      {"set_max_background_flushes", 16},
      {"set_max_log_file_size", 1073741824},
      {"set_write_buffer_size", 1048576},
      {"set_min_write_buffer_number_to_merge", 16},
      {"set_max_write_buffer_number", 48},
      {"set_level0_stop_writes_trigger", 64},
      {"set_level0_slowdown_writes_trigger", 32},
      {"set_level0_file_num_compaction_trigger", 16},
      {"set_max_bytes_for_level_base", 536870912},
      {"set_target_file_size_base", 1048576000},
      {"set_use_fsync", 0},
      {"set_disable_data_sync", 1},
      {"set_num_levels", 6},
      {"set_stats_dump_period_sec", 120},
  };
  krel_json_object *const json = krel_json_object_new_object();
  for (const auto &d : defaults) {
    krel_json_object_object_add(json, d.key, krel_json_object_new_int(d.value));
  }
  krel_json_object_object_add(json, "set_max_bytes_for_level_multiplier", krel_json_object_new_double(10.0));
  krel_json_object *const env = krel_json_object_new_object();
  krel_json_object_object_add(env, "set_high_priority_background_threads", krel_json_object_new_int(8));
  krel_json_object_object_add(json, "env", env);
  return json;
}
