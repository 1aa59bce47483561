#include "be/hist/hist_rollup_config.h"

#include <algorithm>

#include "global/velmar_global_state.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

constexpr uint64_t RECORD_SIZE_S = 3600;

// False: the attribute is not there, or not to be understood.
bool read_duration(const krel_conf_section_t &section, const char *path, uint64_t *seconds, bool *is_bad) {
  std::string text;
  *is_bad = false;
  if (!krel_conf_get_string(section, path, &text)) return false;
  *is_bad = !krel_confstr_parse_duration(text, krel_get_durations_s(), seconds);
  return !*is_bad;
}

hist_rollup_config_t read_rollup(const krel_conf_section_t &section, uint64_t raw_granularity_s) {
  hist_rollup_config_t rollup = {};
  int32_t period = 0;
  krel_conf_get_int32(section, "@period", &period);
  if (period < 1) krel_fatal("rollup has an invalid period\n");
  if (raw_granularity_s % static_cast<uint64_t>(period) != 0)
    krel_fatal(
        "rollup period %d isn't a factor of raw histogram shard granularity %lu (and must be): change "
        "//histogram//rollup/@period or //histogram_ingest/@granularity\n",
        period, raw_granularity_s);
  rollup.period = static_cast<unsigned>(period);
  bool is_bad;
  if (read_duration(section, "@retention", &rollup.retention_s, &is_bad))
    krel_log(krel_notice, "histogram retention length_seconds: %lu period %d\n", rollup.retention_s, period);
  if (is_bad) krel_fatal("could not parse //histogram/@retention parameter\n");
  if (read_duration(section, "@granularity", &rollup.granularity_s, &is_bad))
    krel_log(krel_notice, "histogram granularity seconds: %lu period %d\n", rollup.granularity_s, period);
  if (is_bad) krel_fatal("could not parse //histogram/@granularity parameter for period %d\n", period);
  if (rollup.granularity_s == 0) krel_fatal("Histogram rollup granularity settings are required\n");
  if (rollup.granularity_s % RECORD_SIZE_S != 0)
    krel_fatal("the granularity of histogram rollup period %d must be whole hours: a record holds one hour\n",
               period);
  return rollup;
}

void find_parents(std::vector<hist_rollup_config_t> *rollups) {
  for (size_t i = 0; i < rollups->size(); i++) {
    hist_rollup_config_t &rollup = (*rollups)[i];
    rollup.index = static_cast<int>(i);
    rollup.parent_idx = rollup.index - 1;
    while (rollup.parent_idx >= 0 &&
           rollup.period % (*rollups)[static_cast<size_t>(rollup.parent_idx)].period != 0)
      rollup.parent_idx--;
    if (i > 0 && rollup.parent_idx < 0)
      krel_fatal("Rollup with period %d can't rollup from any smaller period\n",
                 static_cast<int>(rollup.period));
    if (i > 0 && (*rollups)[i - 1].period == rollup.period)
      krel_fatal("the histogram rollup period %d is given twice\n", static_cast<int>(rollup.period));
  }
}

}  // namespace

hist_config_t hist_mgr_read_config(const char *node_id, uint64_t raw_granularity_s) {
  hist_config_t config;
  for (const krel_conf_section_t &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "//histogram//rollup"))
    config.rollups.push_back(read_rollup(section, raw_granularity_s));
  if (config.rollups.empty())
    krel_fatal(
        "At least one histogram rollup must be defined: <histogram> has a <rollup> for each period, and raw "
        "histograms (<histogram_ingest>) have nowhere to go without\n");
  std::sort(config.rollups.begin(), config.rollups.end(),
            [](const hist_rollup_config_t &a, const hist_rollup_config_t &b) { return a.period < b.period; });
  find_parents(&config.rollups);
  std::string location;
  if (!krel_conf_get_string(KREL_CONF_ROOT, "//histogram/@location", &location) ||
      location.find("{node}") == std::string::npos)
    krel_fatal("Error: histogram location doesn't have {node} in it.\n");
  config.path = velmar_global_node_path(location, node_id);
  return config;
}
