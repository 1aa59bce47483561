#include <rocksdb/c.h>

#include <mutex>

#include "db/admin/rocksdb_admin.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/tolv_asynch.h"
#include "util/velmar_stats.h"

namespace {

stats_handle_t *g_manual_compaction;  // set once, by the first handle's init

struct compact_closure_t {
  velmar_db_admin_rocksdb_handle_t *handle;
  rocksdb_column_family_handle_t *family;  // null: the whole database
};

int rocksdb_manual_compact(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *const c = static_cast<compact_closure_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) {
    krel_perftimer_t timer;
    krel_perftimer_start(&timer);
    if (c->family != nullptr) {
      rocksdb_compact_range_cf(c->handle->db, c->family, nullptr, 0, nullptr, 0);
    } else {
      rocksdb_compact_range(c->handle->db, nullptr, 0, nullptr, 0);
    }
    stats_set_hist_intscale(g_manual_compaction, krel_perftimer_elapsed(&timer), -9, 1);
  }
  if (mask == KRELEV_ASYNCH_CLEANUP) delete c;
  return 0;
}

void register_statistics() {
  krelev_name_callback("rocksdb_manual_compact", rocksdb_manual_compact);
  g_manual_compaction = velmar_stats_get_handle("db.rocksdb.manual_compaction", STATS_TYPE_HISTOGRAM);
  stats_handle_tagged_name(g_manual_compaction, "latency");
  stats_handle_add_tag(g_manual_compaction, "db-type", "rocksdb");
  stats_handle_add_tag(g_manual_compaction, "operation", "compact");
  stats_handle_add_tag(g_manual_compaction, "units", "seconds");
}

}  // namespace

void velmar_db_admin_rocksdb_init(velmar_db_admin_rocksdb_handle_t *handle, rocksdb_t *db,
                                  std::vector<rocksdb_column_family_handle_t *> families,
                                  rocksdb_options_t *options,
                                  const velmar_db_admin_rocksdb_manager_t *manager) {
  static std::once_flag once;
  std::call_once(once, register_statistics);
  handle->db = db;
  handle->column_family_handles = std::move(families);
  handle->options = options;
  handle->manager = manager;
}

void velmar_db_admin_rocksdb_compact(velmar_db_admin_rocksdb_handle_t *handle) {
  velmar_db_admin_rocksdb_compact_cf(handle, nullptr);
}

void velmar_db_admin_rocksdb_compact_cf(velmar_db_admin_rocksdb_handle_t *handle,
                                        rocksdb_column_family_handle_t *family) {
  krel_assert(handle->manager != nullptr && handle->manager->scheduler != nullptr);
  tolv_asynch_schedule(handle->manager->scheduler, rocksdb_manual_compact,
                       new compact_closure_t{handle, family});
}
