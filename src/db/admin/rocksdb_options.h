#pragma once
// RocksDB options from JSON. One block cache and one filter policy serve all databases of the process.

#include <cstddef>
#include <memory>

#include "platform/krel/base/krel_json.h"

struct rocksdb_block_based_table_options_t;
struct rocksdb_cache_t;
struct rocksdb_env_t;
struct rocksdb_options_t;

namespace velmar_db_admin {

class rocksdb_default_env_factory_c {
 public:
  static rocksdb_default_env_factory_c &get_instance();
  rocksdb_env_t *get() { return m_env; }  // lives for ever

 private:
  rocksdb_default_env_factory_c();
  rocksdb_env_t *m_env;
};

// Safe from any thread. The first use reads //cache/@rocksdb_block_cache_size and makes the shared parts.
class rocksdb_options_factory_c {
 public:
  static rocksdb_options_factory_c &get_instance();
  rocksdb_options_t *alloc();
  void free(rocksdb_options_t *options);  // null is allowed
  size_t get_block_cache_capacity() const;

 private:
  rocksdb_options_factory_c();
  rocksdb_cache_t *m_cache;
  rocksdb_block_based_table_options_t *m_table_options;
};

// Applies each known key of a JSON object; keys are the C interface's names without "rocksdb_options_". A
// value that cannot be taken is logged and ends the call with false.
bool apply_rocksdb_options(rocksdb_options_t *options, const krel_json_object *json);

}  // namespace velmar_db_admin

// The defaults as a JSON object, the caller's.
krel_json_object *velmar_db_rocksdb_create_options_json();
