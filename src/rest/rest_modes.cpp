// The modes in which a node takes no data: journal drain, rebuild, and deferment while it lags.

#include <atomic>

#include "global/velmar_global_state.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace {

constexpr uint64_t DEFERMENT_CHECK_S = 30;

struct modes_t {
  bool journal_only = false, reject_nnt_puts = false;
  int32_t start_data_defer = 0, continue_processing_after_defer = 0;  // seconds of lag; 0: off
  bool defer[NO_DEFER] = {true, true, true, true};
  std::function<double()> latency;
  std::atomic<bool> data_deferment_active{false};
  std::atomic<uint64_t> check_deferment_status_time{0};  // seconds
};

modes_t &modes() {
  static modes_t m;
  return m;
}

bool read_flag(const char *path, const char *name) {
  int32_t value = 1;
  krel_conf_get_int32(KREL_CONF_ROOT, path, &value);
  if (value != 0 && value != 1) krel_fatal("ERROR: %s value of %d is invalid, must be 0 or 1\n", name, value);
  return value == 1;
}

const char *enabled(bool on) {
  return on ? "enabled" : "disabled";
}

void read_deferment() {
  modes_t &m = modes();
  krel_conf_get_int32(KREL_CONF_ROOT, "//deferred_processing/@start_ts", &m.start_data_defer);
  krel_conf_get_int32(KREL_CONF_ROOT, "//deferred_processing/@continue_ts", &m.continue_processing_after_defer);
  m.defer[NNTBS_DEFER] = read_flag("//deferred_processing/@defer_nnt", "defer_nnt");
  m.defer[TEXT_DEFER] = read_flag("//deferred_processing/@defer_text", "defer_text");
  m.defer[HIST_DEFER] = read_flag("//deferred_processing/@defer_hist", "defer_hist");
  m.defer[RAW_DEFER] = read_flag("//deferred_processing/@defer_raw", "defer_raw");
  if (m.start_data_defer < 0 || m.continue_processing_after_defer < 0)
    krel_fatal("ERROR: deferred processing timestamps must be >= 0\n");
  if ((m.start_data_defer == 0) != (m.continue_processing_after_defer == 0))
    krel_fatal("ERROR: deferred processing timestamps must either both be or neither be 0\n");
  if (m.continue_processing_after_defer > m.start_data_defer)
    krel_fatal("ERROR: continue processing defer time must be <= start deferment time\n");
}

}  // namespace

void rest_helper_init(bool journal_only, bool reject_nnt_puts) {
  modes_t &m = modes();
  m.journal_only = journal_only;
  m.reject_nnt_puts = reject_nnt_puts;
  std::string ca_chain;
  if (krel_conf_get_string(KREL_CONF_ROOT, "//krelev/config/default_ca_chain", &ca_chain))
    topo_set_ca_chain(nullptr, ca_chain.c_str());
  krel_rest_get_handler_hook_register("velmar-tasks", rest_helper_adopt_taskid);
  read_deferment();
  krel_log(krel_notice, "journal only mode: %s\n", enabled(journal_only));
  krel_log(krel_notice, "reject nnts puts mode: %s\n", enabled(reject_nnt_puts));
  if (m.start_data_defer == 0)
    krel_log(krel_notice, "data defer mode disabled\n");
  else
    krel_log(krel_notice, "data defer mode enabled - start deferring at %d, stop deferring at %d\n",
             m.start_data_defer, m.continue_processing_after_defer);
  krel_log(krel_notice, "defer mode: nnt %s, text %s, histogram %s\n", enabled(m.defer[NNTBS_DEFER]),
           enabled(m.defer[TEXT_DEFER]), enabled(m.defer[HIST_DEFER]));
}

bool rest_helper_rejects_nnt_puts() {
  return modes().reject_nnt_puts;
}
bool rest_helper_is_journal_only() {
  return modes().journal_only;
}
void rest_helper_set_latency_source(std::function<double()> source) {
  modes().latency = std::move(source);
}

bool rest_helper_is_deferment_active(defer_t type) {
  modes_t &m = modes();
  if (type == NO_DEFER || m.start_data_defer <= 0 || !m.defer[type]) return false;
  const uint64_t now = krel_now_ms() / 1000;
  uint64_t last = m.check_deferment_status_time.load();
  if (now >= last + DEFERMENT_CHECK_S && m.check_deferment_status_time.compare_exchange_strong(last, now)) {
    const double latency = m.latency ? m.latency() : 0;
    if (!m.data_deferment_active)
      m.data_deferment_active = latency >= m.start_data_defer;
    else
      m.data_deferment_active = latency >= m.continue_processing_after_defer;
  }
  return m.data_deferment_active;
}

int check_for_deferment_mode(krel_http_session_t *session, defer_t type) {
  const char *reason = nullptr, *body = nullptr;
  if (modes().journal_only) {
    reason = "JOURNAL ONLY MODE";
    body = "{ \"error\": \"system is in journal only mode, not accepting data\" }";
  } else if (get_reconstitute_mode()) {
    reason = "RECONSTITUTE MODE ACTIVE";
    body = "{ \"error\": \"in reconstitute mode, rejecting data\" }";
  } else if (rest_helper_is_deferment_active(type)) {
    reason = "DEFERMENT THRESHOLD EXCEEDED";
    body = "{ \"error\": \"data deferment threshold exceeded\" }";
  } else {
    return 0;
  }
  if (session) rest_json_answer(session, 403, reason, body);
  return -1;
}
