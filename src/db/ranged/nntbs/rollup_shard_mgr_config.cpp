#include "db/ranged/nntbs/rollup_shard_mgr_config.h"

#include <algorithm>

#include "db/lmdb/lmdb_flags.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace db::ranged::nntbs {

namespace {

constexpr uint64_t PAGE = 4096;

// Raised to whole blocks; false when the result is no time that a shard's name can hold.
bool to_whole_blocks(uint64_t period, uint64_t *seconds) {
  if (*seconds > INT32_MAX) return false;
  *seconds = round_up_to_blocks(*seconds, period);
  return *seconds <= INT32_MAX;
}

bool read_duration(const krel_conf_section_t &section, const char *path, uint64_t *seconds) {
  std::string text;
  return krel_conf_get_string(section, path, &text) &&
         krel_confstr_parse_duration(text, krel_get_durations_s(), seconds);
}

void read_map_size(const krel_conf_section_t &section, uint64_t *bytes) {
  std::string text;
  if (!krel_conf_get_string(section, "@initial_map_size", &text)) return;
  int64_t number = 0;
  uint64_t size = 0;
  if (krel_parse_int64(text, &number))
    size = number > 0 ? static_cast<uint64_t>(number) : 0;
  else if (!krel_confstr_parse_size(text, &size))
    krel_fatal("could not parse //nntbs/shards/@initial_map_size parameter\n");
  if (size > 1ULL << 46) krel_fatal("//nntbs/shards/@initial_map_size is too large\n");
  if (size > 0) *bytes = (size + PAGE - 1) / PAGE * PAGE;
}

rollup_period_params_t read_period(const krel_conf_section_t &section) {
  rollup_period_params_t p;
  if (!krel_conf_get_int32(section, "@period", &p.period))
    krel_fatal("could not find //nntbs/shards/@period parameter\n");
  if (p.period < 1) krel_fatal("rollup has an invalid period\n");
  const auto period = static_cast<uint64_t>(p.period);
  if (!read_duration(section, "@size", &p.length_seconds) || p.length_seconds == 0)
    krel_fatal("could not parse //nntbs/shards/@size parameter\n");
  krel_log(krel_notice, "NNTBS timeshard period: %d, requested length_seconds: %lu\n", p.period,
           p.length_seconds);
  if (!to_whole_blocks(period, &p.length_seconds))
    krel_fatal("could not parse //nntbs/shards/@size parameter\n");
  krel_log(krel_notice, "NNTBS timeshard period: %d, adjusted length_seconds: %lu\n", p.period,
           p.length_seconds);
  std::string text;
  if (krel_conf_get_string(section, "@retention", &text)) {
    if (!read_duration(section, "@retention", &p.retention_length_seconds) ||
        p.retention_length_seconds > UINT64_MAX / 2)
      krel_fatal("could not parse //nntbs/shards/@retention parameter\n");
    p.retention_length_seconds = round_up_to_blocks(p.retention_length_seconds, period);
  }
  read_map_size(section, &p.initial_map_size);
  return p;
}

// They are told, and that is all: whole shards expire, whoever's metrics they hold.
void tell_tag_retention() {
  for (const krel_conf_section_t &section :
       krel_conf_get_sections_read(KREL_CONF_ROOT, "//retention/nntbs/tag")) {
    int32_t account = 0;
    std::string query;
    uint64_t seconds = 0;
    krel_conf_get_int32(section, "@account_id", &account);
    krel_conf_get_string(section, "@query", &query);
    krel_log(krel_notice, "retention nntbs tag query account_id %d, query %s\n", account, query.c_str());
    if (!read_duration(section, "@retention", &seconds))
      krel_log(krel_error, "could not parse retention parameter for nntbs\n");
    else
      krel_log(krel_notice, "retention nntbs tag length_seconds: %lu\n", seconds);
  }
}

}  // namespace

rollup_shard_mgr_params_t read_rollup_shard_mgr_params(const std::string &root_path,
                                                       const rollup_config_set_t &configs) {
  rollup_shard_mgr_params_t params;
  params.root_path = root_path;
  krel_conf_get_uint64(KREL_CONF_ROOT, "//nntbs/@minimum_shard_floor", &params.minimum_shard_floor);
  const auto sections = krel_conf_get_sections_read(KREL_CONF_ROOT, "//nntbs/shard");
  if (sections.empty()) krel_fatal("At least one NNTBS shard must be defined\n");
  for (const krel_conf_section_t &section : sections) {
    rollup_period_params_t period = read_period(section);
    const auto config = std::find_if(
        configs.configs.begin(), configs.configs.end(),
        [&](const rollup_config_t *c) { return c->period == static_cast<unsigned>(period.period); });
    if (config != configs.configs.end()) period.rollup_config = *config;
    params.periods.push_back(period);
  }
  tell_tag_retention();
  std::string text;
  if (krel_conf_get_string(KREL_CONF_ROOT, "//nntbs/@shard_storage_type", &text) && text == "mdbx")
    params.storage = rollup_storage_e::mdbx;
  krel_ex_log(krel_notice, "Using {} storage for rollup shards\n",
              params.storage == rollup_storage_e::mdbx ? "mdbx" : "LMDB");
  if (krel_conf_get_string(KREL_CONF_ROOT, "//nntbs/@lmdb_flags", &text)) {
    krel_log(krel_notice, "Using custom timeshard environment flags: %s\n", text.c_str());
    params.lmdb_flags = velmar_db_lmdb_string_to_flags(text);
  }
  return params;
}

}  // namespace db::ranged::nntbs
