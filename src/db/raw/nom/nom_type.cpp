#include "db/raw/nom/nom_type.h"

#include <rocksdb/c.h>

#include <cstring>
#include <string>

#include "db/admin/rocksdb_options.h"
#include "db/raw/nom/nom_stats.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {
namespace {

rocksdb_options_t *createoptions(const krel_json_object *json, void *) {
  rocksdb_options_t *const options = options_factory_c::get_instance().alloc();
  if (velmar_db_admin::apply_rocksdb_options(options, json)) return options;
  velmar_db_admin::rocksdb_options_factory_c::get_instance().free(options);
  return nullptr;
}

}  // namespace

options_factory_c &options_factory_c::get_instance() {
  static options_factory_c instance;
  return instance;
}

rocksdb_options_t *options_factory_c::alloc() {
  rocksdb_options_t *const options = velmar_db_admin::rocksdb_options_factory_c::get_instance().alloc();
  const uint64_t buffer_size = max_db_write_buffer_size_from_conf();
  rocksdb_options_set_use_adaptive_mutex(options, 1);
  rocksdb_options_set_max_open_files(options, -1);
  rocksdb_options_set_db_write_buffer_size(options, buffer_size);
  rocksdb_options_set_max_total_wal_size(options, buffer_size);
  // Merges never go into a memtable from several threads: the cheaper way of inserting will do.
  rocksdb_options_set_allow_concurrent_memtable_write(options, 0);
  rocksdb_options_set_compression(options, rocksdb_lz4_compression);
  return options;
}

uint64_t max_db_write_buffer_size_from_conf() {
  uint64_t size = 16777216;
  krel_conf_get_size(KREL_CONF_ROOT, "//raw_database/@max_db_write_buffer_size", &size);
  return size;
}

conflict_resolver_e conflict_resolver_from_conf(nom_merge_type_e datatype) {
  std::string word;
  const bool is_numeric = datatype == numeric;
  krel_conf_get_string(
      KREL_CONF_ROOT,
      is_numeric ? "//velmar/raw_database/@conflict_resolver" : "//velmar/histogram_ingest/@conflict_resolver",
      &word);
  const conflict_resolver_e resolver = conflict_resolver_from_word(word);
  krel_log(krel_notice,
           is_numeric ? "Numeric conflict resolver chosen: %d\n" : "Histogram conflict resolver chosen: %d\n",
           static_cast<int>(resolver));
  return resolver;
}

}  // namespace velmar_db_raw_nom

velmar_db_admin_rocksdb_type_t *velmar_db_raw_nom_create_type(velmar_db_admin_rocksdb_types_t *types) {
  velmar_db_raw_nom::nom_stats(velmar_db_raw_nom::numeric);
  velmar_db_raw_nom::nom_stats(velmar_db_raw_nom::histogram);
  return velmar_db_admin_rocksdb_add_type(types, "nom", strlen("nom"), velmar_db_raw_nom::createoptions,
                                          nullptr, nullptr);
}

krel_json_object *velmar_db_raw_nom_create_options_json() {
  return velmar_db_rocksdb_create_options_json();
}
