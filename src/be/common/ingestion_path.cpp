#include "be/common/ingestion_path.h"

#include <atomic>

#include "platform/krel/base/krel_log.h"

namespace be::common {

namespace {

std::atomic<bool> graphite_ingestion_enabled{true}, opentsdb_ingestion_enabled{true},
    raw_ingestion_enabled{true};
constexpr ingestion_path_e SINGLE_PATHS[] = {ingestion_path_e::graphite, ingestion_path_e::opentsdb,
                                             ingestion_path_e::raw};

std::atomic<bool> *flag(ingestion_path_e path) {
  switch (path) {
    case ingestion_path_e::graphite:
      return &graphite_ingestion_enabled;
    case ingestion_path_e::opentsdb:
      return &opentsdb_ingestion_enabled;
    case ingestion_path_e::raw:
      return &raw_ingestion_enabled;
    default:
      return nullptr;
  }
}

}  // namespace

const char *ingestion_path_str(ingestion_path_e path) {
  switch (path) {
    case ingestion_path_e::all:
      return "all";
    case ingestion_path_e::graphite:
      return "graphite";
    case ingestion_path_e::opentsdb:
      return "opentsdb";
    case ingestion_path_e::raw:
      return "raw";
    default:
      return "<ERROR>";
  }
}

void set_ingestion_path_enabled(ingestion_path_e path, bool enabled) {
  std::atomic<bool> *single = flag(path);
  if (!single && path != ingestion_path_e::all) return;
  krel_ex_log(krel_notice, "Setting {} ingestion to enabled={}\n", ingestion_path_str(path), enabled);
  if (single)
    single->exchange(enabled);
  else
    for (const ingestion_path_e p : SINGLE_PATHS) flag(p)->exchange(enabled);
}

bool is_ingestion_path_enabled(ingestion_path_e path) {
  if (path == ingestion_path_e::all) return get_disabled_ingestion_paths().empty();
  const std::atomic<bool> *single = flag(path);
  return single && single->load(std::memory_order_relaxed);
}

std::unordered_set<ingestion_path_e> get_disabled_ingestion_paths() {
  std::unordered_set<ingestion_path_e> paths;
  for (const ingestion_path_e p : SINGLE_PATHS)
    if (!is_ingestion_path_enabled(p)) paths.insert(p);
  return paths;
}

}  // namespace be::common
