#include "node/config_dump.h"

#include <unistd.h>

#include <cstdio>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"

int config_dump(const std::string &config_file, const std::string &xpath) {
  if (!krel_conf_load(config_file.c_str())) {
    krel_ex_log(krel_error, "Cannot load config: '{}'\n", config_file);
    return 2;
  }
  const auto sections = krel_conf_get_sections_read(KREL_CONF_ROOT, xpath.c_str());
  int index = 0;
  for (const auto &section : sections) {
    printf("%d%s: ", index++, krel_conf_env_off(section) ? "[env suppressed]" : "");
    fflush(stdout);
    krel_conf_write_section(section, STDOUT_FILENO);
  }
  return sections.empty() ? 2 : 0;
}
