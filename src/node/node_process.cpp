// The node process: from a parsed command line through the start-up order to the event loop.

#include "node/node_process.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "be/common/accept.h"
#include "be/graphite/graphite_listener.h"
#include "be/graphite/rest_graphite_mgr.h"
#include "be/graphite/rest_graphite_put.h"
#include "be/ingestion/rest_ingestion.h"
#include "be/nntbs/nntbs_mgr.h"
#include "be/raw/raw_mgr.h"
#include "be/raw/rest_raw_get.h"
#include "be/raw/rest_raw_merge.h"
#include "be/raw/rest_raw_put.h"
#include "be/raw/rest_raw_rollup.h"
#include "be/rollup/rest_rollup_get.h"
#include "global/velmar_global_db.h"
#include "global/velmar_global_state.h"
#include "ingestion/metric_validation.h"
#include "libvelmar/nnt/nnt_multitype.h"
#include "libvelmar/topo/topo.h"
#include "libvelmar/util/tolv_proxy_buffer.h"
#include "node/config_check.h"
#include "node/config_dump.h"
#include "node/config_keys.h"
#include "node/initialized_hook.h"
#include "node/rest_stats.h"
#include "node/version.h"
#include "node/worker_pools.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/http/krel_http.h"
#include "platform/krel/process/krel_main.h"
#include "platform/krel/process/krel_watchdog.h"
#include "platform/tolvmetrics/stats.h"
#include "replicate/replicate_mgr.h"
#include "rest/rest_helpers.h"
#include "util/velmar_stats.h"

namespace {

constexpr const char *APP = "velmar";
constexpr int EXIT_CONFIG = 2;
constexpr int DRAIN_TIMEOUT_S = 10;
constexpr useconds_t DRAIN_POLL_US = 10000;

command_line_t settings;
std::atomic<int> reload_needed{0};

void request_conf_reload(int signal) {
  if (signal == 1) reload_needed = 1;
}

bool load_config() {
  if (krel_conf_load(settings.config_file.c_str())) return true;
  krel_ex_log(krel_error, "Cannot load config: '{}'\n", settings.config_file);
  return false;
}

// Topology files are compiled, which may resolve names: not on the loop.
int reload_job(krelev_event_t, int mask, void *, const struct timeval *) {
  if (mask == KRELEV_ASYNCH_WORK) replicate_mgr_scandir();
  return 0;
}

int notice_hup(krelev_event_t, int, void *, const struct timeval *) {
  if (!reload_needed.exchange(0)) return 0;
  krel_log(krel_notice, "SIGHUP received, performing reload\n");
  if (!load_config()) exit(255);
  velmar_go_asynch(nullptr, reload_job, nullptr);
  return 1;
}

void inject_x_topo(krel_http_session_t *session) {
  krel_http_response_header_set(session, "X-Topo-0", topo_signature(topo_active()));
  krel_http_response_header_set(session, "X-Topo-1", topo_signature(topo_next_active()));
}

void drain_requests() {
  krel_listener_close_all();
  for (int waited_us = 0; krel_http_requests_in_flight() > 0; waited_us += static_cast<int>(DRAIN_POLL_US)) {
    if (waited_us >= DRAIN_TIMEOUT_S * 1000000) {
      krel_log(krel_error, "stopping with %lu requests still in flight after %d s\n",
               static_cast<unsigned long>(krel_http_requests_in_flight()), DRAIN_TIMEOUT_S);
      return;
    }
    usleep(DRAIN_POLL_US);
  }
}

// A mode whose module this build does not have is refused by name, never passed over.
int refuse_missing_mode() {
  const char *mode = !settings.repair_tgt.empty()                                   ? "-r (repair)"
                     : !settings.merge_text.empty() || !settings.merge_hist.empty() ? "-m, -H (merge)"
                     : settings.reconstitute_mode                                   ? "-B (reconstitute)"
                     : settings.drain_journal_mode                                  ? "-j (journal drain)"
                                                                                    : nullptr;
  if (!mode) return 0;
  krel_log(krel_error, "ERROR: %s is not part of this build\n", mode);
  return EXIT_CONFIG;
}

int check_standalone() {
  const std::string &target = settings.repair_tgt;
  if (!target.empty() &&
      (target.size() < 5 || target[4] != '/' || (target.rfind("text", 0) && target.rfind("hist", 0)))) {
    krel_ex_log(krel_error, "repair: {} not understood\n", target);
    return EXIT_CONFIG;
  }
  const bool merges = !settings.merge_text.empty() || !settings.merge_hist.empty();
  if (settings.import_time_limit && !merges && target.empty()) {
    krel_log(krel_error, "ERROR: Import time limit can only be set while doing a standalone merge\n");
    return EXIT_CONFIG;
  }
  return refuse_missing_mode();
}

// From the event system to dropped rights.
void init_framework() {
  krel_conf_log_init(APP, settings.foreground > 0);
  krel_log_reopen_all();
  krel_log_go_asynch();
  krel_main_on_hangup(request_conf_reload);
  velmar_be_common_initialize_token_chars();
  velmar_init_reconstitute_mode(settings.reconstitute_mode);
  topo_init_globals();
  krel_http_set_version(velmar_version());
  krel_http_rest_init();
  krel_capabilities_listener_init();
  velmar_stats_init();
  velmar_stats_set_text("application", "velmar");
  velmar_set_topology_expected(true);
  krel_conf_log_init_rotate(APP, 0);
  krel_watchdog_child_krelev_heartbeat();
  krelev_name_callback("notice_hup", notice_hup);
  krelev_name_callback("velmard::reload_job", reload_job);
  krelev_add(krelev_alloc_recurrent(notice_hup, nullptr));
  stats_ns_add_tag(stats_recorder_global_ns(velmar_stats_get_recorder()), "velmar-node-id",
                   settings.node_id.c_str());
  krel_log(krel_notice, "Begin velmard initialization sequence\n");
  krel_conf_security_init(APP, settings.droptouser.c_str(), settings.droptogroup.c_str(),
                          settings.chrootpath.c_str());
}

int init_topology() {
  if (settings.ephemeral) {
    topo_uuid_t id;
    krel_uuid_generate(id.data());
    topo_set_i_am_ephemeral(id);
    char text[KREL_UUID_STR_LEN + 1];
    krel_uuid_unparse_lower(id.data(), text);
    settings.node_id = text;
  }
  if (replicate_mgr_init(settings.node_id.c_str()) != 0) {
    krel_log(krel_error, "no active topology!\n");
    return EXIT_CONFIG;
  }
  krel_assert(settings.ephemeral == topo_i_am_ephemeral());
  if (settings.ephemeral) krel_ex_log(krel_notice, "Booting with ephemeral id: {}\n", settings.node_id);
  velmar_stats_set_text("identity", settings.node_id.c_str());
  return 0;
}

std::vector<int> rollup_periods() {
  std::vector<int> periods;
  for (const rollup_config_t *config : nntbs_mgr_get_rollup_configs().configs)
    periods.push_back(static_cast<int>(config->period));
  return periods;
}

void init_stores() {
  init_private_nan();
  velmar_global_locators_init();
  velmar_global_db_init(settings.node_id.c_str(), settings.ephemeral);
  db::ingestion::metric_validation_init();
  nntbs_mgr_init(settings.node_id.c_str(), settings.ephemeral, settings.reconstitute_mode);
  if (!settings.ephemeral) rest_raw_mgr_init(settings.node_id.c_str(), nntbs_mgr_get_rollup_configs());
  replicate_mgr_set_rollups(rollup_periods());
  replicate_mgr_rest_init(settings.ephemeral, velmar_version());
}

void init_routes() {
  rest_raw_get_init();
  rest_rollup_get_init();
  http_response_starting_hook_register("x-topo", inject_x_topo);
  if (!settings.ephemeral) {
    rest_ingestion_control_init();
    rest_raw_put_init();
    rest_raw_rollup_init();
    rest_raw_merge_init();
    rest_graphite_mgr_init();
    rest_graphite_put_init();
  }
  graphite_listener_init(settings.ephemeral);
  replicate_mgr_register_web_ui();
}

// Databases and clients need many; the soft limit of a shell is for programs that use select().
void raise_descriptor_limit() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// -n: makes a period of the numeric rollups anew out of a finer one, while the node serves nothing.
int run_rebuild() {
  krel_assert(!settings.ephemeral);
  velmar_set_topology_expected(false);
  velmar_stats_set_text("identity", settings.node_id.c_str());
  init_private_nan();
  velmar_global_locators_init();
  velmar_global_db_init(settings.node_id.c_str(), false);
  nntbs_mgr_init(settings.node_id.c_str(), false, false);
  krel_log(krel_notice, "Rebuild Rollup Started!\n");
  krel_ex_log(krel_notice, "building nntbs rollup: {}\n", settings.rebuild_rollup);
  const bool generated = nntbs_generate_rollup(static_cast<unsigned>(settings.rebuild_rollup));
  if (generated)
    krel_ex_log(krel_notice, "successfully generated rollup: {}\n", settings.rebuild_rollup);
  else
    krel_ex_log(krel_error, "failed to generate rollup: {}\n", settings.rebuild_rollup);
  nntbs_mgr_close();
  velmar_global_db_close();
  krel_log_go_synch();
  return generated ? 0 : EXIT_FAILURE;
}

int child_main() {
  raise_descriptor_limit();
  if (!load_config()) return EXIT_CONFIG;
  krel_ex_log(krel_notice, "Booting Velmar Node: Version '{}', Node ID '{}'\n", velmar_version(),
              settings.node_id.empty() ? "ephemeral" : settings.node_id);
  if (!velmar_global_check_config(settings.node_id.empty() ? nullptr : settings.node_id.c_str()))
    krel_fatal(
        "velmar misconfigured - must contain surrogate_database, metric_name_database, and raw_database\n");
  if (krelev_init() != 0) {
    krel_log(krel_error, "Cannot initialize krelev\n");
    return 255;
  }
  velmar_global_setup();
  velmar_global_start();
  velmar_global_rocksdb_init();
  if (const int status = check_standalone()) return status;
  init_framework();
  if (settings.rebuild_rollup) {
    krel_watchdog_disable_all();
    return run_rebuild();
  }

  rest_helper_init(settings.drain_journal_mode, settings.reject_nnt_puts);
  tolv_proxy_buffer_init_proxy_dir(velmar_global_get_local_state_dir());
  krel_watchdog_disable_all();
  if (const int status = init_topology()) return status;
  init_stores();
  krel_watchdog_enable_all();
  init_routes();
  if (velmar_initialized_hook_invoke() == 2) krel_fatal("Some module aborted during initialization.\n");
  krel_main_on_shutdown("surrogate database", velmar_global_db_close);
  krel_main_on_shutdown("numeric rollups", nntbs_mgr_close);
  krel_main_on_shutdown("raw stores", rest_raw_mgr_close);
  krel_main_on_shutdown("readers of rollups", rest_rollup_get_close);
  krel_main_on_shutdown("graphite connections", graphite_listener_close);
  krel_main_on_shutdown("listeners", drain_requests);
  krel_listener_init(APP);
  krel_log(krel_notice, "Finish velmard initialization sequence\n");
  krelev_loop();
}

int status() {
  pid_t pid = 0, pgid = 0;
  const int result = krel_main_status(APP, settings.config_file.c_str(), settings.debug, &pid, &pgid);
  if (result == 0) krel_ex_log(krel_debug, "running pid {}, pgid: {}\n", pid, pgid);
  return result;
}

}  // namespace

int velmard_run(const command_line_t &line) {
  settings = line;
  velmar_worker_pools_config();
  krel_watchdog_disable_asynch_core_dump();
  if (settings.print_keys) return config_keys_write_markdown(stdout), 0;
  if (settings.check_config) return config_check(settings.config_file, stdout);
  if (!settings.xpath.empty()) return config_dump(settings.config_file, settings.xpath);
  switch (settings.proc_op) {
    case PROC_START:
      return krel_main(APP, settings.config_file.c_str(), settings.debug, settings.foreground,
                       settings.lock_op + 1, settings.glider.c_str(), settings.droptouser.c_str(),
                       settings.droptogroup.c_str(), child_main);
    case PROC_STOP:
      return krel_main_terminate(APP, settings.config_file.c_str(), settings.debug);
    case PROC_STATUS:
      return status();
    default:
      print_usage("velmard", stdout, stderr);
      return 2;
  }
}
