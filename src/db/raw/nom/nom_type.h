#pragma once
// The database type "nom": its options, and what the configuration says about it.

#include "db/admin/rocksdb_admin.h"
#include "db/raw/nom/nom_merge.h"

struct rocksdb_options_t;

namespace velmar_db_raw_nom {

class options_factory_c {
 public:
  static options_factory_c &get_instance();
  rocksdb_options_t *alloc();  // freed as options of the RocksDB administration are
};

// //raw_database/@max_db_write_buffer_size in bytes, default 16 MiB.
uint64_t max_db_write_buffer_size_from_conf();
// //velmar/raw_database/@conflict_resolver or //velmar/histogram_ingest/@conflict_resolver; logs the choice.
conflict_resolver_e conflict_resolver_from_conf(nom_merge_type_e datatype);

}  // namespace velmar_db_raw_nom

// Registers the type and its statistics.
velmar_db_admin_rocksdb_type_t *velmar_db_raw_nom_create_type(velmar_db_admin_rocksdb_types_t *types);
// The defaults as a JSON object, the caller's.
krel_json_object *velmar_db_raw_nom_create_options_json();
