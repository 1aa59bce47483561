#include "replicate/replicate_mgr.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

constexpr size_t SIGNATURE_LENGTH = 64;

std::string configured_signature(const char *which) {
  std::string signature;
  const std::string path = std::string("/velmar/topology/@") + which + "|/velmar/include/topology/@" + which;
  krel_conf_get_string(KREL_CONF_ROOT, path.c_str(), &signature);
  return signature;
}

void load_file(const std::string &path, const std::string &signature) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  std::string err;
  auto tc = topo_compile_text(text.str(), signature.c_str(), &err);
  if (tc)
    topo_retain(std::move(tc));
  else if (err == "XML parse error")
    krel_log(krel_error, "Not a valid XML file: %s\n", path.c_str());
  else
    krel_log(krel_error, "topology %s failed to compile: %s\n", signature.c_str(), err.c_str());
}

topo_config *find(const char *which) {
  const std::string signature = configured_signature(which);
  if (signature.empty() || signature == "-") return nullptr;
  topo_config *tc = topo_retrieve_hex(signature);
  if (!tc)
    krel_log(krel_error, "the configured %s topology %s is not among the files of %s\n", which,
             signature.c_str(), topo_directory().c_str());
  return tc;
}

}  // namespace

int replicate_mgr_scandir() {
  const std::string directory = topo_directory();
  krel_log(krel_notice, "Searching for topologies in %s\n", directory.c_str());
  DIR *dir = opendir(directory.c_str());
  if (!dir) {
    krel_log(krel_error, "Cannot open dir %s: %s\n", directory.c_str(), strerror(errno));
    return -1;
  }
  std::vector<std::string> names;
  while (const dirent *entry = readdir(dir))
    if (strlen(entry->d_name) == SIGNATURE_LENGTH) names.emplace_back(entry->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string &name : names)
    if (!topo_retrieve_hex(name)) load_file(directory + "/" + name, name);
  return 0;
}

int replicate_mgr_init(const char *node_id) {
  topo_init_globals();
  topo_uuid_t me{};
  if (krel_uuid_parse(node_id, me.data()) != 0) krel_fatal("Unable to parse UUID: %s\n", node_id);
  if (replicate_mgr_scandir() < 0) return -1;
  topo_config *active = find("active"), *next = find("next");
  topo_initialize(active, next, me);
  krel_log(krel_notice, "TOPO(0): %s\n", topo_signature(active));
  krel_log(krel_notice, "TOPO(1): %s\n", topo_signature(next));
  if (topo_set_node(me) != 0 && !topo_i_am_ephemeral())
    krel_log(krel_error, "not participating in current topology\n");
  return topo_target() ? 0 : -1;
}

bool replicate_mgr_get_participating() {
  return topo_contains(topo_target(), topo_me());
}
