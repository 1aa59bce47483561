#include "db/admin/rocksdb_admin.h"

#include <rocksdb/c.h>

#include <cstring>

#include "db/admin/rocksdb_error.h"
#include "db/admin/rocksdb_logger.h"
#include "db/admin/rocksdb_options.h"
#include "platform/krel/base/krel_log.h"

using velmar_db_admin::rocksdb_error_c;

namespace {

void type_free(void *value) {
  auto *const type = static_cast<velmar_db_admin_rocksdb_type_t *>(value);
  if (type->cleanup != nullptr) type->cleanup(type->closure);
  delete type;
}

rocksdb_options_t *rawdb_createoptions(const krel_json_object *json, void *) {
  auto &factory = velmar_db_admin::rocksdb_options_factory_c::get_instance();
  rocksdb_options_t *const options = factory.alloc();
  rocksdb_options_set_create_if_missing(options, 1);
  if (velmar_db_admin::apply_rocksdb_options(options, json)) return options;
  factory.free(options);
  return nullptr;
}

// [type, path, options]
krel_json_ptr repair_entry(const velmar_db_admin_rocksdb_type_t *type, const std::string &path,
                           const krel_json_object *options_json) {
  krel_json_ptr entry(krel_json_object_new_array());
  krel_json_object_array_add(entry.get(), krel_json_object_new_string(type->name.c_str()));
  krel_json_object_array_add(entry.get(), krel_json_object_new_string(path.c_str()));
  krel_json_object_array_add(entry.get(), krel_json_object_get(const_cast<krel_json_object *>(options_json)));
  return entry;
}

velmar_db_admin_rocksdb_handle_ptr no_handle() {
  return {nullptr, velmar_db_admin_rocksdb_close};
}

}  // namespace

void velmar_db_admin_rocksdb_init_types(velmar_db_admin_rocksdb_types_t *types) {
  krel_hash_init(&types->types);
}

void velmar_db_admin_rocksdb_uninit(velmar_db_admin_rocksdb_types_t *types) {
  krel_hash_destroy(&types->types, nullptr, type_free);
}

velmar_db_admin_rocksdb_type_t *velmar_db_admin_rocksdb_add_type(
    velmar_db_admin_rocksdb_types_t *types, const char *rocksdb_type, size_t rocksdb_type_len,
    velmar_db_admin_rocksdb_createoptions_f createoptions, velmar_db_admin_rocksdb_cleanup_f cleanup,
    void *closure) {
  krel_assert(rocksdb_type_len == strlen(rocksdb_type));
  auto *const type = new velmar_db_admin_rocksdb_type_t{rocksdb_type, createoptions, cleanup, closure};
  const char *const key_type = type->name.c_str();
  krel_assert(krel_hash_store(&types->types, key_type, rocksdb_type_len, (void *)type));
  return type;
}

velmar_db_admin_rocksdb_type_t *velmar_db_rocksdb_create_type(velmar_db_admin_rocksdb_types_t *types) {
  return velmar_db_admin_rocksdb_add_type(types, "rawdb", strlen("rawdb"), rawdb_createoptions, nullptr,
                                          nullptr);
}

void velmar_db_admin_rocksdb_init_manager(velmar_db_admin_rocksdb_manager_t *manager,
                                          velmar_db_admin_rocksdb_types_t *types,
                                          velmar_db_admin_repair_journal_c *repair_ctx,
                                          const tolv_asynch_scheduler_t *scheduler) {
  *manager = {types, repair_ctx, scheduler};
}

rocksdb_options_t *velmar_db_admin_rocksdb_options_create(const velmar_db_admin_rocksdb_type_t *type,
                                                          const krel_json_object *json) {
  rocksdb_options_t *const options = type->createoptions(json, type->closure);
  if (options != nullptr) velmar_db_admin::set_info_log(options);
  return options;
}

void velmar_db_admin_rocksdb_options_destroy(rocksdb_options_t *options) {
  velmar_db_admin::rocksdb_options_factory_c::get_instance().free(options);
}

velmar_db_admin_rocksdb_handle_ptr velmar_db_admin_rocksdb_open(
    const velmar_db_admin_rocksdb_manager_t *manager, const velmar_db_admin_rocksdb_type_t *type,
    const std::string &path, const krel_json_object *options_json) {
  rocksdb_options_t *const options = velmar_db_admin_rocksdb_options_create(type, options_json);
  if (options == nullptr) return no_handle();
  rocksdb_error_c error;
  rocksdb_options_set_error_if_exists(options, 1);
  rocksdb_t *db = rocksdb_open(options, path.c_str(), error.ptr());
  if (db == nullptr) {
    rocksdb_options_set_error_if_exists(options, 0);
    db = rocksdb_open(options, path.c_str(), error.ptr());
  }
  if (db == nullptr) {
    krel_log(krel_error, "Error opening rocksdb %s (type %s): %s\n", path.c_str(), type->name.c_str(),
             error.text());
    if (manager->repair_ctx != nullptr) {
      manager->repair_ctx->write(repair_entry(type, path, options_json).get());
    }
    velmar_db_admin_rocksdb_options_destroy(options);
    return no_handle();
  }
  velmar_db_admin_rocksdb_handle_ptr handle(new velmar_db_admin_rocksdb_handle_t,
                                            velmar_db_admin_rocksdb_close);
  velmar_db_admin_rocksdb_init(handle.get(), db, {}, options, manager);
  return handle;
}

void velmar_db_admin_rocksdb_release(velmar_db_admin_rocksdb_handle_t *handle) {
  for (rocksdb_column_family_handle_t *family : handle->column_family_handles) {
    rocksdb_column_family_handle_destroy(family);
  }
  handle->column_family_handles.clear();
  if (handle->db != nullptr) rocksdb_close(handle->db);
  handle->db = nullptr;
  velmar_db_admin_rocksdb_options_destroy(handle->options);
  handle->options = nullptr;
}

void velmar_db_admin_rocksdb_close(velmar_db_admin_rocksdb_handle_t *handle) {
  if (handle == nullptr) return;
  velmar_db_admin_rocksdb_release(handle);
  delete handle;
}

bool velmar_db_admin_rocksdb_repair_cb(const velmar_db_admin_rocksdb_types_t *types, krel_json_object *entry) {
  void *type = nullptr;
  const bool is_entry =
      krel_json_object_is_type(entry, krel_json_type_array) && krel_json_object_array_length(entry) == 3 &&
      krel_json_object_is_type(krel_json_object_array_get_idx(entry, 0), krel_json_type_string) &&
      krel_json_object_is_type(krel_json_object_array_get_idx(entry, 1), krel_json_type_string);
  if (is_entry) {
    const std::string_view name = krel_json_object_get_string_view(krel_json_object_array_get_idx(entry, 0));
    krel_hash_retrieve(&types->types, name.data(), name.size(), &type);
  }
  if (type == nullptr) {
    krel_log(krel_error, "ERROR: parsed JSON object (\"%s\") is not a valid rocksdb repair insn.\n",
             krel_json_object_to_json_string(entry));
    return false;
  }
  const char *const path = krel_json_object_get_string(krel_json_object_array_get_idx(entry, 1));
  rocksdb_options_t *const options = velmar_db_admin_rocksdb_options_create(
      static_cast<velmar_db_admin_rocksdb_type_t *>(type), krel_json_object_array_get_idx(entry, 2));
  if (options == nullptr) return false;
  rocksdb_error_c error;
  rocksdb_repair_db(options, path, error.ptr());
  velmar_db_admin_rocksdb_options_destroy(options);
  if (error) krel_log(krel_error, "Error repairing %s: %s\n", path, error.text());
  return !error;
}
