#include "db/raw/scanner.h"

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"

namespace db::raw::scanner {

namespace {

constexpr size_t TIME_DIGITS = 10;
constexpr std::string_view DELETING = ".deleting";

bool is_digits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

struct dir_t {
  uint64_t start_s, end_s;
  std::string path;
};

void remove_dir(const std::string &path) {
  std::error_code code;
  std::filesystem::remove_all(path, code);
  if (code)
    krel_log(krel_error, "Error removing dir \"%s\": %d - %s\n", path.c_str(), code.value(),
             code.message().c_str());
  else
    krel_log(krel_notice, "Deleted dir \"%s\"\n", path.c_str());
}

}  // namespace

parse_result_e parse_shard_file_name(std::string_view name, uint64_t *start_s, uint64_t *end_s) {
  const size_t plain = 2 * TIME_DIGITS + 1;
  if (name.size() < plain || name[TIME_DIGITS] != '-') return parse_result_e::not_recognized;
  const std::string_view start = name.substr(0, TIME_DIGITS), end = name.substr(TIME_DIGITS + 1, TIME_DIGITS);
  std::string_view rest = name.substr(plain);
  if (!is_digits(start) || !is_digits(end)) return parse_result_e::not_recognized;
  const bool deleting = rest.rfind(DELETING, 0) == 0;
  if (deleting) rest.remove_prefix(DELETING.size());
  const bool numbered = !rest.empty();
  if (numbered && (rest[0] != '-' || !is_digits(rest.substr(1)))) return parse_result_e::not_recognized;
  if (!krel_parse_uint64(start, start_s) || !krel_parse_uint64(end, end_s))
    return parse_result_e::not_recognized;
  if (deleting) return parse_result_e::deleting;
  return numbered || *start_s >= *end_s ? parse_result_e::not_recognized : parse_result_e::active;
}

void scan_disk_for_shards(const std::string &path,
                          const std::function<void(uint64_t, uint64_t, const std::string &)> &found) {
  krel_log(krel_notice, "Beginning to find shards in: %s\n", path.c_str());
  std::vector<dir_t> active;
  std::vector<std::string> deleting;
  std::error_code code;
  for (std::filesystem::directory_iterator it(path, code), end; !code && it != end; it.increment(code)) {
    if (!it->is_directory(code)) continue;
    dir_t dir{0, 0, it->path().string()};
    switch (parse_shard_file_name(it->path().filename().string(), &dir.start_s, &dir.end_s)) {
      case parse_result_e::active:
        krel_log(krel_notice, "Found shard %s\n", dir.path.c_str());
        active.push_back(std::move(dir));
        break;
      case parse_result_e::deleting:
        deleting.push_back(dir.path);
        break;
      default:
        break;
    }
  }
  if (code) krel_log(krel_error, "cannot read the directory %s: %s\n", path.c_str(), code.message().c_str());
  for (const std::string &dir : deleting) remove_dir(dir);

  std::atomic<size_t> next{0};
  std::vector<std::thread> threads;
  const size_t width = std::min<size_t>(std::max(1U, std::thread::hardware_concurrency()), active.size());
  for (size_t t = 0; t < width; t++)
    threads.emplace_back([&] {
      krel_thread_setname("shard_scan");
      krel_memory_init_thread();
      for (size_t i; (i = next.fetch_add(1)) < active.size();)
        found(active[i].start_s, active[i].end_s, active[i].path);
      krel_memory_fini_thread();
    });
  for (std::thread &thread : threads) thread.join();
  krel_log(krel_notice, "Done finding shards in: %s. Totals: active: %lu, deleting: %lu\n", path.c_str(),
           static_cast<unsigned long>(active.size()), static_cast<unsigned long>(deleting.size()));
}

}  // namespace db::raw::scanner
