#include "db/raw/raw_store_config.h"

#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/io/file_helpers.h"

namespace db::raw {

namespace {

constexpr uint64_t RECORD_SIZE_S = 3600, STEP_SIZE_MS = 1;

class reader_c {
 public:
  explicit reader_c(const char *element) : m_element(element) {}

  bool text(const char *attribute, std::string *out) const {
    return krel_conf_get_string(KREL_CONF_ROOT, path(attribute).c_str(), out);
  }
  void seconds(const char *attribute, uint64_t *out) const {
    std::string value;
    if (text(attribute, &value) && !krel_confstr_parse_duration(value, krel_get_durations_s(), out))
      krel_fatal("could not parse timeshard %s parameter.", attribute);
  }
  std::string path(const char *attribute) const {
    return std::string("//velmar/") + m_element + "/@" + attribute;
  }

 private:
  const char *m_element;
};

void check_fixed(const reader_c &conf, bool numeric) {
  uint64_t record_s = RECORD_SIZE_S, step_ms = STEP_SIZE_MS;
  conf.seconds("recordsize", &record_s);
  krel_conf_get_uint64(KREL_CONF_ROOT, conf.path("stepsize").c_str(), &step_ms);
  if (record_s != RECORD_SIZE_S || step_ms != STEP_SIZE_MS)
    krel_fatal("Only recordsize of %lis and stepsize of %lims is currently released for raw %s.\n",
               static_cast<long>(RECORD_SIZE_S), static_cast<long>(STEP_SIZE_MS),
               numeric ? "numeric" : "histograms");
  std::string word;
  if (conf.text("rollup_strategy", &word) && word != "raw_iterator")
    krel_fatal("ERROR: Only acceptable %srollup strategy is raw_iterator - %s in config\n",
               numeric ? "" : "hist shard ", word.c_str());
  if (conf.text("data_db", &word) && word != "nomdb")
    krel_fatal(numeric ? "Raw numeric data db must be nomdb\n" : "Hist shard data db must be nomdb\n");
}

void read_durations(const reader_c &conf, const char *element, raw_shard_factory_params_t *params) {
  conf.seconds("granularity", &params->granularity_s);
  conf.seconds("min_delete_age", &params->min_delete_age_s);
  conf.seconds("rollup_after_quiescent_age", &params->rollup_after_quiescent_age_s);
  uint64_t delete_after_s = 86400;
  conf.seconds("delete_after_quiescent_age", &delete_after_s);
  params->delete_after_quiescent_age_s = delete_after_s + params->rollup_after_quiescent_age_s;
  conf.seconds("max_clock_skew", &params->max_clock_skew_s);
  conf.seconds("startup_rollup_delay", &params->startup_rollup_delay_s);
  if (params->granularity_s == 0) krel_fatal("could not parse timeshard granularity parameter.");
  if (params->granularity_s % RECORD_SIZE_S != 0)
    krel_fatal("the granularity of %s must be whole hours: a record holds one hour\n", element);
  if (params->min_delete_age_s < params->rollup_after_quiescent_age_s)
    krel_fatal(
        "The min_delete_age setting for %s must be larger than the rollup_after_quiescent_age (default 8hr)\n",
        element);
}

uint32_t read_streaming_limit(const reader_c &conf, uint32_t limit) {
  std::string text;
  uint64_t value = 0;
  if (!conf.text("streaming_limit", &text)) return limit;
  if (!krel_parse_uint64(text, &value) || value == 0 || value > UINT32_MAX) {
    krel_log(krel_error, "Raw streaming limit is 0 or invalid, will use default\n");
    return limit;
  }
  return static_cast<uint32_t>(value);
}

}  // namespace

raw_store_config_t read_raw_store_config(const char *element, const char *node_id) {
  const reader_c conf(element);
  const bool numeric = strcmp(element, "raw_database") == 0;
  raw_store_config_t config;
  std::string location;
  config.configured = conf.text("location", &location);
  if (!config.configured) {
    if (!numeric)
      krel_log(krel_notice,
               "Histogram_ingest location was not specified, histogram sharding will not be enabled\n");
    return config;
  }
  config.factory.description = numeric ? "raw numeric" : "raw histogram";
  read_durations(conf, element, &config.factory);
  check_fixed(conf, numeric);
  config.streaming_limit = read_streaming_limit(conf, config.streaming_limit);
  conf.text("suppress_rollup_filter", &config.suppress_rollup_filter);
  const size_t at = location.find("{node}");
  if (at != std::string::npos) location.replace(at, 6, node_id);
  if (const auto code = util::io::mkdir_for_file(location + "/dummy"))
    krel_fatal("Directory was not created: %s, error: %d - %s\n", location.c_str(), code.value(),
               code.message().c_str());
  config.factory.basedir = location;
  return config;
}

}  // namespace db::raw
