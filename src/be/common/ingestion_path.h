#pragma once
// The switchboard of ingestion paths: each can be turned off at run time, none survives a restart off.

#include <unordered_set>

namespace be::common {

enum class ingestion_path_e : int { all = 0, graphite = 1, opentsdb = 2, raw = 3 };

const char *ingestion_path_str(ingestion_path_e path);  // "<ERROR>" of anything else
void set_ingestion_path_enabled(ingestion_path_e path, bool enabled);
bool is_ingestion_path_enabled(ingestion_path_e path);  // all: all three
std::unordered_set<ingestion_path_e> get_disabled_ingestion_paths();

}  // namespace be::common
