#include "global/velmar_features.h"

#include <map>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/http/krel_http.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace {

struct features_t {
  krel_mutex_c mutex;
  std::map<std::string, std::string> by_name GUARDED_BY(mutex);
};

features_t &features() {
  static features_t f;
  return f;
}

}  // namespace

void velmar_register_feature(const char *name, const char *value) {
  {
    const krel_lock_c lock(features().mutex);
    if (!features().by_name.emplace(name, value).second) krel_fatal("Feature conflict: %s\n", name);
  }
  stats_recorder_t *recorder = velmar_stats_get_recorder();
  stats_ns_t *ns = stats_register_ns(recorder, stats_register_ns(recorder, nullptr, "features"), name);
  stats_ns_add_tag(ns, "velmar-feature", name);
  static const char enabled[] = "1";
  stats_set(stats_register(ns, "enabled", STATS_TYPE_STRING), STATS_TYPE_STRING, enabled);
  krel_capabilities_add_feature((std::string("velmar:") + name).c_str(), value);
}

void velmar_features_each(const std::function<void(const std::string &, const std::string &)> &function) {
  const krel_lock_c lock(features().mutex);
  for (const auto &[name, value] : features().by_name) function(name, value);
}
