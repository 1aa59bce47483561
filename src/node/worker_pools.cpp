#include "node/worker_pools.h"

#include <string>

#include "platform/krel/process/krel_main.h"

namespace {

struct pools_t {
  const char *value;  // concurrency, minimum, maximum, memory safety, backlog limit, order
  const char *names;  // separated by blanks
};

// In the order of the calls: of two defaults for one queue the later one holds.
constexpr pools_t POOLS[] = {
    {"4,1,16,gc", "surrogate_put surrogate_get"},
    {"1,1,1,gc",
     "velmar_hist_retention velmar_rest_hist_delete velmar_rest_nntbs_delete velmar_raw_metric_list "
     "velmar_raw_reconstitute_surrogate velmar_rest_raw_delete velmar_rest_raw_surrogate_merge "
     "velmar_reconstitute_sweep velmar_reconstitute_mode velmar_text_compact velmar_text_retention "
     "velmar_nntbs_retention velmar_reconstitute_cleanup rollup_raw timeshard_rollup timeshard_delete "
     "raw_writer "
     "rollup_hist_shard hist_shard_rollup hist_shard_delete hist_shard_rollup_delete hist_shard_writer "
     "hist_rollup_shard_writer shard_cache full_delete rocksdb_scheduler"},
    {"2,1,2,gc", "clean_rollup_suppressed_metrics"},
    {"4,1,4,gc",
     "velmar_rest_hist_merge velmar_rest_text_delete raw_ingest raw_reconst hist_shard_ingest "
     "hist_shard_reconst"},
    {"4,1,16,gc", "velmar_rest_hist_put set_crdt set_crdt_journal velmar_rest_text_put"},
    {"5,1,5,gc", "velmar_rest_nntbs_list_shards velmar_rest_nntbs_put"},
    {"6,1,10,gc", "surrogate_writer"},
    {"8,1,8,gc", "velmar_rest_hist_raw_get velmar_rest_text_raw_get"},
    {"8,1,16,gc", "process_journal"},
    {"10,1,10,gc", "velmar_rest_metric_merge velmar_rest_text_merge"},
    {"10,1,100,gc", "velmar_rest_nntbs_merge"},
    {"10,1,500,gc",
     "velmar_reconstitute_inventory velmar_reconstitute_main velmar_reconstitute_write "
     "velmar_reconstitute_stats"},
    {"1,1,500,gc", "velmar_reconstitute_run_node velmar_reconstitute_data"},
    {"1,1,16,gc", "index_compact"},
    {"15,1,15,gc", "velmar_rest_hist_get velmar_rest_text_get"},
    {"16,1,32,gc", "velmar_raw_reconstitute velmar_hist_shard_reconstitute_read"},
    {"20,1,20,gc", "velmar_rest_get velmar_raw_numeric_get velmar_raw_get_range"},
    {"20,1,100,gc", "velmar_db_ranged_nnt"},
    {"20,1,1000,gc", "velmar_rollup_proxy_get"},
    {"25,1,50,gc", "surrogate_merge_send raw_merge_send text_merge_send"},
    {"32,1,128,gc", "velmar_raw_put_parse"},
    {"32,1,256,gc", "velmar_fetch_local"},
    {"50,1,50,gc", "velmar_rest_nntbs_by_shard_reconstitute"},
    {"50,1,500,gc", "velmar_reconstitute_raw_cf_iterator"},
    {"64,1,1024,gc", "velmar_fetch_remote"},
    {"75,1,75,gc", "velmar_rest_raw_get"},
    {"100,1,1000,gc", "asynch_remote_fetch"},
    {"6,1,100,gc,0,lifo", "find_local find_slow_local"},
    {"10,1,100,gc,0,lifo", "find_fast_local"},
    {"20,1,2000,gc,0,lifo", "find_remote find_slow_remote"},
    {"40,1,2000,gc,0,lifo", "find_fast_remote"},
    {"1,1,1,gc,10000", "data_key_read hist_shard_key_read"},
    {"4,1,20,gc,1000", "data_write hist_shard_write hist_shard_rollup_write"},
    {"16,1,32,gc,50000", "hist_shard_read hist_shard_rollup_read"},
    {"64,1,256,gc,50000", "data_read"},
    {"1,1,1,gc", "surrogate_put surrogate_get"},
};

}  // namespace

void velmar_worker_pools_config() {
  for (const pools_t &pools : POOLS) {
    const std::string names = pools.names;
    for (size_t at = 0, end; at < names.size(); at = end + 1) {
      end = names.find(' ', at);
      if (end == std::string::npos) end = names.size();
      krel_main_krelev_config(("jobq_" + names.substr(at, end - at)).c_str(), pools.value);
    }
  }
}
