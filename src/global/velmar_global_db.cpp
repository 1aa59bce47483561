#include "global/velmar_global_db.h"

#include <memory>
#include <string>

#include "db/admin/rocksdb_admin.h"
#include "db/raw/nom/nom_type.h"
#include "db/surrogate/counter_writer_async.h"
#include "db/surrogate/surrogate.h"
#include "db/surrogate3/coordinator.h"
#include "db/surrogate3/coordinator_factory.h"
#include "db/surrogate3/metrics_db_writer_async_decorator.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "util/concurrency/tolv_asynch_krel.h"

namespace {

struct databases_t {
  velmar_db_admin_rocksdb_types_t types;
  velmar_db_admin_rocksdb_type_t *rawdb_type = nullptr, *nomdb_type = nullptr;
  velmar_db_admin_rocksdb_manager_t manager;
  tolv_asynch_scheduler_t scheduler;
  std::shared_ptr<db::surrogate3::coordinator_c> coordinator;
};

databases_t &databases() {
  static databases_t d;
  return d;
}

void warn_of_old_pool() {
  uint32_t concurrency = 0;
  if (krel_conf_get_uint32(KREL_CONF_ROOT, "//pools/raw_surrogate_writer/@concurrency", &concurrency))
    krel_log(krel_notice,
             "WARNING: Configuration via 'pools/raw_surrogate_writer' is no longer supported. The configured "
             "'pools' "
             "value (%u) will be ignored. Override the '%s' jobq in krelev configuration to change this value.",
             concurrency, "surrogate_writer");
}

}  // namespace

void velmar_global_rocksdb_init() {
  databases_t &d = databases();
  velmar_db_admin_rocksdb_init_types(&d.types);
  d.rawdb_type = velmar_db_rocksdb_create_type(&d.types);
  d.nomdb_type = velmar_db_raw_nom_create_type(&d.types);
  d.scheduler =
      tolv_asynch_create_scheduler(&tolv_asynch_krel::factory_c::get_instance(), "rocksdb_scheduler", 1, true);
  velmar_db_admin_rocksdb_init_manager(&d.manager, &d.types, nullptr, &d.scheduler);
}

void velmar_global_db_init(const char *node_id, bool is_ephemeral) {
  std::string text;
  if (!krel_conf_get_string(KREL_CONF_ROOT, "//velmar/surrogate_database/@db_type", &text) && !is_ephemeral)
    krel_fatal("//velmar/surrogate_database/@db_type is required");
  if (is_ephemeral) {
    krel_log(krel_debug, "Running in ephemeral mode. No global databases.");
    return;
  }
  if (!krel_conf_get_string(KREL_CONF_ROOT, "//velmar/surrogate_database/@location", &text)) {
    krel_log(krel_notice, "No //velmar/surrogate_database/@location, leaving surrogate db unconfigured\n");
    return;
  }
  warn_of_old_pool();
  databases_t &d = databases();
  d.coordinator = db::surrogate3::coordinator_factory_c::create(node_id);
  if (!d.coordinator) krel_fatal("Could not open surrogate impl at %s\n", text.c_str());
  const auto indexed = std::make_shared<db::surrogate3::metrics_db_writer_async_decorator_c>(
      d.coordinator, d.coordinator, nullptr);
  const auto counted = std::make_shared<db::surrogate::counter_writer_async_c>(indexed, indexed);
  velmar_global_surrogate_publish(counted, d.coordinator, counted);
}

void velmar_global_db_close() {
  velmar_global_surrogate_publish(nullptr, nullptr, nullptr);
  databases().coordinator.reset();
}

velmar_db_admin_rocksdb_type_t *velmar_global_get_rocksdb_nomdb_type() {
  return databases().nomdb_type;
}
velmar_db_admin_rocksdb_manager_t *velmar_global_get_rocksdb_manager() {
  return &databases().manager;
}
