#pragma once
// Shard directories by their names: "<start>-<end>" in seconds, ".deleting" behind it for one on its way out.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace db::raw::scanner {

enum class parse_result_e { not_recognized, active, deleting };
parse_result_e parse_shard_file_name(std::string_view name, uint64_t *start_s, uint64_t *end_s);

// Removes what is on its way out, then gives each shard directory to `found`, on as many threads as the machine
// has; returns when all have ended.
void scan_disk_for_shards(
    const std::string &path,
    const std::function<void(uint64_t start_s, uint64_t end_s, const std::string &dir)> &found);

}  // namespace db::raw::scanner
