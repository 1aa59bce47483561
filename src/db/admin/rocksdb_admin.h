#pragma once
// Every RocksDB database of the node is opened, closed, compacted and repaired through here. A registry of
// named database types makes the options of each kind.
//
// Types and manager are set up by one thread at start and then only read; handles may be used by any
// thread as RocksDB allows. Opening, closing and repairing block on the disk.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/krel/base/krel_hash.h"
#include "platform/krel/base/krel_json.h"

struct rocksdb_column_family_handle_t;
struct rocksdb_options_t;
struct rocksdb_t;
struct tolv_asynch_scheduler_t;

// New options with the JSON's values applied.
using velmar_db_admin_rocksdb_createoptions_f = rocksdb_options_t *(*)(const krel_json_object *json,
                                                                       void *closure);
using velmar_db_admin_rocksdb_cleanup_f = void (*)(void *closure);

struct velmar_db_admin_rocksdb_type_t {
  std::string name;
  velmar_db_admin_rocksdb_createoptions_f createoptions;
  velmar_db_admin_rocksdb_cleanup_f cleanup;  // of the closure, with the registry's end; or null
  void *closure;
};

struct velmar_db_admin_rocksdb_types_t {
  krel_hash_table types;  // name to velmar_db_admin_rocksdb_type_t, owned
};
void velmar_db_admin_rocksdb_init_types(velmar_db_admin_rocksdb_types_t *types);
void velmar_db_admin_rocksdb_uninit(velmar_db_admin_rocksdb_types_t *types);
// A name that is taken, or that does not have that length, is fatal. The type lives as long as the registry.
velmar_db_admin_rocksdb_type_t *velmar_db_admin_rocksdb_add_type(
    velmar_db_admin_rocksdb_types_t *types, const char *rocksdb_type, size_t rocksdb_type_len,
    velmar_db_admin_rocksdb_createoptions_f createoptions, velmar_db_admin_rocksdb_cleanup_f cleanup,
    void *closure);
// The type "rawdb": general key-value databases.
velmar_db_admin_rocksdb_type_t *velmar_db_rocksdb_create_type(velmar_db_admin_rocksdb_types_t *types);

// Notes down what must be repaired at the next start. From any thread; the note is on disk on return.
class velmar_db_admin_repair_journal_c {
 public:
  virtual ~velmar_db_admin_repair_journal_c() = default;
  // `entry` is a JSON array that stays the caller's; its first element names the database's type.
  virtual void write(krel_json_object *entry) = 0;
};

struct velmar_db_admin_rocksdb_manager_t {
  velmar_db_admin_rocksdb_types_t *types = nullptr;
  velmar_db_admin_repair_journal_c *repair_ctx = nullptr;  // or null: damage is only logged
  const tolv_asynch_scheduler_t *scheduler = nullptr;      // runs manual compactions
};
void velmar_db_admin_rocksdb_init_manager(velmar_db_admin_rocksdb_manager_t *manager,
                                          velmar_db_admin_rocksdb_types_t *types,
                                          velmar_db_admin_repair_journal_c *repair_ctx,
                                          const tolv_asynch_scheduler_t *scheduler);

struct velmar_db_admin_rocksdb_handle_t {
  rocksdb_t *db = nullptr;
  std::vector<rocksdb_column_family_handle_t *> column_family_handles;
  rocksdb_options_t *options = nullptr;
  const velmar_db_admin_rocksdb_manager_t *manager = nullptr;
};
using velmar_db_admin_rocksdb_handle_ptr =
    std::unique_ptr<velmar_db_admin_rocksdb_handle_t, void (*)(velmar_db_admin_rocksdb_handle_t *)>;

// New options of that type, logging to the node's stream "rocksdb". Null, and a line in the log, when a
// value of the JSON cannot be taken.
rocksdb_options_t *velmar_db_admin_rocksdb_options_create(const velmar_db_admin_rocksdb_type_t *type,
                                                          const krel_json_object *json);
void velmar_db_admin_rocksdb_options_destroy(rocksdb_options_t *options);  // null is allowed

// Opens the database at that path, made when missing. None: it would not open, and is noted down for repair.
velmar_db_admin_rocksdb_handle_ptr velmar_db_admin_rocksdb_open(
    const velmar_db_admin_rocksdb_manager_t *manager, const velmar_db_admin_rocksdb_type_t *type,
    const std::string &path, const krel_json_object *options_json);
// Fills a handle, which then owns the database, its families and its options.
void velmar_db_admin_rocksdb_init(velmar_db_admin_rocksdb_handle_t *handle, rocksdb_t *db,
                                  std::vector<rocksdb_column_family_handle_t *> families,
                                  rocksdb_options_t *options, const velmar_db_admin_rocksdb_manager_t *manager);
// Closes what an init filled; the handle itself stays. Idempotent.
void velmar_db_admin_rocksdb_release(velmar_db_admin_rocksdb_handle_t *handle);
void velmar_db_admin_rocksdb_close(velmar_db_admin_rocksdb_handle_t *handle);  // and frees it

// Compacts the default family's whole range, or one family's, on the manager's scheduler. The handle must
// stay open until the scheduler has run it.
void velmar_db_admin_rocksdb_compact(velmar_db_admin_rocksdb_handle_t *handle);
void velmar_db_admin_rocksdb_compact_cf(velmar_db_admin_rocksdb_handle_t *handle,
                                        rocksdb_column_family_handle_t *family);

// The other end of the repair journal: repairs the database that an entry names. False, and a line in the
// log, when the entry is none or the repair fails.
bool velmar_db_admin_rocksdb_repair_cb(const velmar_db_admin_rocksdb_types_t *types, krel_json_object *entry);
