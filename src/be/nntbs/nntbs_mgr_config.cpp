#include "be/nntbs/nntbs_mgr_config.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"

namespace {

constexpr const char *HELP =
    "The configuration needs a section like this one beside <raw_database>, a <shard> for each period in "
    "seconds: <nntbs path=\"/var/lib/velmar/{node}/nntbs\"><shard period=\"60\" size=\"1d\" "
    "retention=\"52w\"/><shard period=\"300\" size=\"1w\"/></nntbs>\n";

void read_periods(rollup_config_set_t *set, const std::string &path) {
  for (const krel_conf_section_t &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "//nntbs/shard")) {
    int32_t period = 0, since = 0;
    if (!krel_conf_get_int32(section, "@period", &period))
      krel_fatal("invalid period in <nntbs> config stanza\n");
    if (period < 1) krel_fatal("rollup has an invalid period\n");
    krel_conf_get_int32(section, "@since", &since);
    for (const rollup_config_t *other : set->configs)
      if (other->period == static_cast<unsigned>(period))
        krel_fatal("period %d stands twice in <nntbs> config stanza\n", period);
    auto *const config = new rollup_config_t;
    config->period = static_cast<unsigned>(period);
    config->since = static_cast<uint64_t>(std::max(since, 0));
    config->dir = path;
    set->configs.push_back(config);
  }
  if (set->configs.empty()) {
    krel_log(krel_error, "%s", HELP);
    krel_fatal("At least one nntbs shard must be defined\n");
  }
}

// A raw shard is rolled up by itself: no cell may reach into the next one.
void check_granularity(const rollup_config_set_t &set) {
  uint64_t granularity = 0;
  std::string text;
  if (!krel_conf_get_string(KREL_CONF_ROOT, "//raw_database/@granularity", &text) ||
      !krel_confstr_parse_duration(text, krel_get_durations_s(), &granularity) || granularity == 0) {
    krel_log_go_synch();
    krel_log(krel_error, "[TERMINATE] Raw granularity must be set.\n");
    abort();
  }
  for (const rollup_config_t *config : set.configs) {
    if (config->period <= granularity && granularity % config->period == 0) continue;
    krel_log_go_synch();
    krel_log(krel_error,
             "[TERMINATE] rollup period %d isn't a factor of raw shard granularity %d (and must be).\n",
             static_cast<int>(config->period), static_cast<int>(granularity));
    abort();
  }
}

void check_old_stanza(const rollup_config_set_t &set) {
  const auto sections = krel_conf_get_sections_read(KREL_CONF_ROOT, "//rollups/rollup");
  if (sections.empty()) return;
  std::set<unsigned> old_periods, periods;
  for (const krel_conf_section_t &section : sections) {
    int32_t period = 0;
    if (!krel_conf_get_int32(section, "@period", &period) || period < 1)
      krel_fatal("invalid period in <rollups> config stanza\n");
    old_periods.insert(static_cast<unsigned>(period));
  }
  for (const rollup_config_t *config : set.configs) periods.insert(config->period);
  if (old_periods != periods)
    krel_fatal("<rollups> stanza does not match <nntbs> stanza. Please contact Tolvanus support\n");
  krel_log(krel_error, "warning: <rollups> stanza is deprecated and should be removed\n");
}

}  // namespace

std::string nntbs_mgr_read_config(const char *node_id, rollup_config_set_t *set) {
  std::string path;
  if (!krel_conf_get_string(KREL_CONF_ROOT, "//nntbs/@path", &path)) {
    krel_log(krel_error, "%s", HELP);
    krel_fatal("nntbs has no path specified\n");
  }
  const size_t at = path.find("{node}");
  if (at == std::string::npos) krel_fatal("Error: nntbs path doesn't have {node} in it.\n");
  path.replace(at, 6, node_id);
  read_periods(set, path);
  check_granularity(*set);
  check_old_stanza(*set);
  return path;
}
