#include "global/velmar_global_state.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"
#include "platform/krel/http/krel_http.h"
#include "util/io/file_helpers.h"
#include "util/io/request_logger.h"
#include "util/velmar_metric_locator.h"

namespace {

constexpr size_t MAX_STATE_DIR = 4091;
constexpr uint64_t DEFAULT_FUTURE_BOUND_MS = 14400000;  // 4 hours
constexpr int FUTURE_BOUND_PERIOD_S = 60;

struct state_t {
  std::string local_state_dir = "/velmar/localstate";
  int32_t krelev_rw_advisory_limit = 2097152;
  int64_t big_sendbuf_size = 1048576;
  uint64_t future_bound_ms = DEFAULT_FUTURE_BOUND_MS;
  int reconstitute_mode = 0;
  bool topology_expected = false;
};

state_t &state() {
  static state_t s;
  return s;
}

[[noreturn]] void no_mem_new_handler() {
  krel_fatal("Out of memory.\n");
}

void make_local_state_dir() {
  const std::string &directory = state().local_state_dir;
  struct stat st;
  if (stat(directory.c_str(), &st) != 0) {
    if (errno != ENOENT) krel_fatal("ERROR: couldn't access directory %s\n", directory.c_str());
    if (util::io::mkdir_for_file(directory + "/", 0777))
      krel_fatal("ERROR: couldn't create directory %s\n", directory.c_str());
  } else if (!S_ISDIR(st.st_mode)) {
    krel_fatal("ERROR: directory %s exists, but is not a directory\n", directory.c_str());
  }
}

// Keeps the bound beyond which a sample is too far ahead to be a metric's latest value.
void velmar_bump_locator_future_bound(void *) {
  for (;;) {
    velmar_metric_locator_future_bound = krel_now_ms() + state().future_bound_ms;
    const struct timeval period = {FUTURE_BOUND_PERIOD_S, 0};
    krelev_aco_sleep(&period);
  }
}

}  // namespace

bool velmar_global_check_config(const char *node_id) {
  if (!node_id) return true;
  std::string ignored;
  for (const char *path : {"//velmar/surrogate_database/@location", "//velmar/metric_name_database/@location",
                           "//velmar/raw_database/@location"})
    if (!krel_conf_get_string(KREL_CONF_ROOT, path, &ignored)) {
      krel_log(krel_error, "No %s\n", path);
      return false;
    }
  return true;
}

void velmar_global_setup() {
  std::set_new_handler(no_mem_new_handler);
  krel_capabilities_add_feature("flatbuffer_replication", "1");
}

void velmar_global_start() {
  std::string directory;
  if (krel_conf_get_string(KREL_CONF_ROOT, "//localstate/@directory", &directory)) {
    if (directory.size() >= MAX_STATE_DIR)
      krel_fatal("ERROR: local state dir name %s is too long\n", directory.c_str());
    state().local_state_dir = directory;
  }
  krel_conf_get_int32(KREL_CONF_ROOT, "velmar/@krelev_rw_advisory_limit", &state().krelev_rw_advisory_limit);
  krel_conf_get_int64(KREL_CONF_ROOT, "velmar/@big_sendbuf_size", &state().big_sendbuf_size);
  krel_log(krel_debug, "DEBUG: krelev_rw_advisory_limit %d\n", state().krelev_rw_advisory_limit);
  krel_log(krel_debug, "DEBUG: big_sendbuf_size %ld\n", static_cast<long>(state().big_sendbuf_size));
  make_local_state_dir();
  request_logger_init();
}

void velmar_global_locators_init() {
  bool implicit_latest = false;
  if (krel_conf_get_boolean(KREL_CONF_ROOT, "//velmar/surrogate_database/@implicit_latest", &implicit_latest))
    velmar_metric_locator_implicit_latest = implicit_latest;
  std::string text;
  if (krel_conf_get_string(KREL_CONF_ROOT, "//velmar/surrogate_database/@latest_future_bound", &text) &&
      !krel_confstr_parse_duration(text, krel_get_durations_ms(), &state().future_bound_ms))
    krel_fatal("could not parse surrogate_database latest_future_bound parameter.\n");
  velmar_metric_locator_future_bound = krel_now_ms() + state().future_bound_ms;
  krelev_aco_start(velmar_bump_locator_future_bound, nullptr);
}

void velmar_init_reconstitute_mode(int mode) {
  state().reconstitute_mode = mode;
}
int get_reconstitute_mode() {
  return state().reconstitute_mode;
}
void velmar_set_topology_expected(bool expected) {
  state().topology_expected = expected;
}
bool velmar_get_topology_expected() {
  return state().topology_expected;
}

const char *velmar_global_get_local_state_dir() {
  return state().local_state_dir.c_str();
}
int32_t velmar_global_get_krelev_rw_advisory_limit() {
  return state().krelev_rw_advisory_limit;
}
bool velmar_global_value_exceeds_krelev_rw_advisory_limit(int value) {
  const int32_t limit = state().krelev_rw_advisory_limit;
  return limit != 0 && value >= limit;
}
int64_t velmar_global_get_big_sendbuf_size() {
  return state().big_sendbuf_size;
}

std::string velmar_global_node_path(const std::string &location, const char *node_id) {
  std::string path = location;
  const size_t at = path.find("{node}");
  if (at != std::string::npos) path.replace(at, 6, node_id);
  return path;
}
