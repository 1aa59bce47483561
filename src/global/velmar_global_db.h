#pragma once
// The databases that all stores share: RocksDB's types and manager, and the surrogate database.

struct velmar_db_admin_rocksdb_types_t;
struct velmar_db_admin_rocksdb_type_t;
struct velmar_db_admin_rocksdb_manager_t;

// Registers the database types and makes the manager. At start, after velmar_global_start.
void velmar_global_rocksdb_init();
// Opens the surrogate database and publishes it (db/surrogate/surrogate.h). A failure is fatal.
void velmar_global_db_init(const char *node_id, bool is_ephemeral);
void velmar_global_db_close();

velmar_db_admin_rocksdb_type_t *velmar_global_get_rocksdb_nomdb_type();
velmar_db_admin_rocksdb_manager_t *velmar_global_get_rocksdb_manager();
