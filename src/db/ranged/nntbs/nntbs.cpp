// The store's life and what is known of metrics.

#include "db/ranged/nntbs/nntbs.h"

#include "db/ranged/nntbs/nntbs_hooks.h"
#include "db/ranged/nntbs/nntbs_storage.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/tolv_timed_krel.h"
#include "util/velmar_stats.h"

namespace db::ranged::nntbs {

namespace {

constexpr uint64_t RETENTION_PERIOD_S = 60;
constexpr uint32_t DEFAULT_REPORT_PERIOD_S = 15;
constexpr const char *RETENTION_QUEUE = "velmar_nntbs_retention";

void register_stats() {
  stats_invoke(velmar_stats_get_handle("db.nntbs.get_cells", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(storage().get_calls.load()); });
  stats_invoke(velmar_stats_get_handle("db.nntbs.put_cells", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(storage().put_calls.load()); });
}

struct one_id_t {
  metric_locator_sp locator;
  uint64_t id = 0;
};

void wrote_surrogate(surrogate::value_manager_c *manager, surrogate::value_reader_c *reader, void *closure) {
  const auto count = static_cast<int>(reader->get_count());
  if (count != 1) krel_fatal("NNTBS write_set_cb got wrong number of write points: %d != 1\n", count);
  const surrogate::value_c &value = reader->get_values()[0];
  if (value.is_valid()) static_cast<one_id_t *>(closure)->id = value.get_surrogate_id();
  manager->free_values(reader);
}

void surrogate_failed(const surrogate::key_c &key, void *, void *) {
  krel_log(krel_error, "Error finding or creating surrogate_key \"%s\"\n",
           velmar_metric_locator_get_name_with_tags(key.get_metric_locator().get()));
}

// The period that answers for another: itself, or the largest that divides it.
int32_t realised_period(unsigned period) {
  int32_t best = 0;
  for (const rollup_config_t *config : storage().rollup_configs->configs) {
    if (config->period == period) return static_cast<int32_t>(period);
    if (config->period < period && period % config->period == 0) best = static_cast<int32_t>(config->period);
  }
  return best;
}

bool get_metadata_internal(uint64_t sid, unsigned period, uint64_t *epoch, uint64_t *apocalypse) {
  const int32_t realised = realised_period(period);
  if (realised == 0) {
    krel_log(krel_debug, "NNTBS get_metadata - Unrealizable period for surrogate id %lu: %d\n", sid,
             static_cast<int>(period));
    return false;
  }
  if (epoch && !storage().shard_factory->get_epoch(sid, realised, epoch)) {
    krel_log(krel_debug, "NNTBS get_metadata - Couldn't retrieve epoch for surrogate id %lu, %d\n", sid,
             static_cast<int>(period));
    return false;
  }
  if (apocalypse && !storage().shard_factory->get_apocalypse(sid, realised, apocalypse)) {
    krel_log(krel_debug, "NNTBS get_metadata - Couldn't retrieve apocalypse for surrogate id %lu, %d\n", sid,
             static_cast<int>(period));
    return false;
  }
  return true;
}

}  // namespace

storage_data_t &storage() {
  static storage_data_t *const data = new storage_data_t;  // jobs may still look at it when the process ends
  return *data;
}

uint64_t find_surrogate(const metric_locator_sp &metric_locator) {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(metric_locator.get())) return id;
  const auto &lookup = storage().surrogate_lookup;
  return lookup ? lookup->find(metric_locator).value_or(surrogate::ID_NONE) : surrogate::ID_NONE;
}

uint64_t find_or_create_surrogate(const metric_locator_sp &metric_locator, uint64_t offset_ms) {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(metric_locator.get())) return id;
  surrogate::key_c key;
  key.set_data(metric_locator, std::chrono::milliseconds(offset_ms));
  surrogate::write_entry_c entry(std::move(key));
  one_id_t result;
  surrogate::writer_asynch_c::write_surrogate_set_synch(storage().surrogate_writer.get(), &entry, 1,
                                                        wrote_surrogate, surrogate_failed, &result);
  return result.id;
}

}  // namespace db::ranged::nntbs

using namespace db::ranged::nntbs;

void nntbs_init(const std::string &path, rollup_config_set_t *configs,
                std::shared_ptr<db::surrogate::lookup_synch_c> lookup,
                std::shared_ptr<db::surrogate::writer_asynch_c> writer) {
  storage_data_t &data = storage();
  if (data.inited) return;
  data.path = path;
  data.rollup_configs = configs;
  data.surrogate_lookup = std::move(lookup);
  data.surrogate_writer = std::move(writer);
  const rollup_shard_mgr_params_t params = read_rollup_shard_mgr_params(path, *configs);
  for (const rollup_period_params_t &period : params.periods)
    if (period.rollup_config) period.rollup_config->retention_length_seconds = period.retention_length_seconds;
  data.shard_factory = std::make_unique<rollup_shard_mgr_c>(params);
  data.shard_factory->init_rollup_diskspace();
  register_stats();
  data.inited = true;
}

void nntbs_start_maintenance() {
  storage_data_t &data = storage();
  krelev_jobq_t *jobq = krelev_jobq_retrieve(RETENTION_QUEUE);
  if (!jobq) jobq = krelev_jobq_create_ms(RETENTION_QUEUE, true);
  const auto run = [jobq](std::function<void()> job) { krelev_jobq_run(jobq, std::move(job)); };
  auto *const timers = &tolv_timed_krel::factory_c::get_instance();
  data.retention = std::make_unique<periodic_job_c>(timers, run, RETENTION_PERIOD_S,
                                                    [] { storage().shard_factory->perform_retention(); });
  uint32_t report_s = DEFAULT_REPORT_PERIOD_S;
  krel_conf_get_uint32(KREL_CONF_ROOT, "//nntbs/@shard_report_period_sec", &report_s);
  data.report = std::make_unique<periodic_job_c>(timers, run, std::max(report_s, 1U),
                                                 [] { storage().shard_factory->report_shard_trigger(); });
}

void nntbs_close() {
  storage_data_t &data = storage();
  data.retention.reset();
  data.report.reset();
  if (data.shard_factory) data.shard_factory->close_all();
  data.shard_factory.reset();
  data.surrogate_lookup.reset();
  data.surrogate_writer.reset();
  data.inited = false;
}

rollup_shard_mgr_c *nntbs_get_shard_mgr() {
  return storage().shard_factory.get();
}

uint64_t nntbs_get_max_oldest_retention_time_s() {
  const rollup_shard_mgr_c *const manager = nntbs_get_shard_mgr();
  return manager ? manager->get_max_oldest_retention_time_s() : 0;
}

bool nntbs_shard_maintenance_is_offline(unsigned period, uint64_t start, uint64_t end) {
  const rollup_shard_mgr_c *const manager = nntbs_get_shard_mgr();
  return manager && manager->is_offline(static_cast<int32_t>(period), start, end);
}

int nntbs_get_metadata(const metric_locator_sp &metric_locator, unsigned period, uint64_t *epoch,
                       uint64_t *apocalypse) {
  const uint64_t sid = find_surrogate(metric_locator);
  if (sid == db::surrogate::ID_NONE) return -1;
  if (get_nntbs_metadata_hook_invoke(sid, period, epoch, apocalypse) != NNTBS_HOOK_CONTINUE) return 0;
  return get_metadata_internal(sid, period, epoch, apocalypse) ? 0 : -1;
}

int nntbs_delete(unsigned period, uint64_t new_epoch, const metric_locator_sp &metric_locator, std::string *) {
  static krel_log_stream_t *const log = krel_log_stream_find("debug/delete");
  const uint64_t sid = find_surrogate(metric_locator);
  if (sid == db::surrogate::ID_NONE) {
    krel_log(krel_error, "NNTBS -- delete_range error, unable to find surrogate\n");
    return 0;
  }
  krel_log(log, "NNTBS -- delete_range, new_epoch: %lu, period: %d, sid: %lu\n", new_epoch,
           static_cast<int>(period), sid);
  storage().shard_factory->delete_before(sid, static_cast<int32_t>(period), new_epoch);
  return 0;
}
