#include "platform/krel/event/krelev_config.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <thread>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

constexpr uint32_t k_most_loops = 1024;
constexpr uint32_t k_most_workers = 65536;
constexpr krelev_jobq_settings_t k_default_queue = {
    .concurrency = 10, .min = 1, .max = 10, .memory_safety = true};

bool parse_number(std::string_view text, uint32_t least, uint32_t most, uint32_t *out) {
  uint64_t number;
  if (text.empty() || !krel_parse_uint64(text, &number) || number < least || number > most) return false;
  *out = static_cast<uint32_t>(number);
  return true;
}

std::vector<std::string_view> split(std::string_view text) {
  std::vector<std::string_view> parts;
  for (;;) {
    size_t comma = text.find(',');
    parts.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return parts;
    text.remove_prefix(comma + 1);
  }
}

bool is_name(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
  });
}

[[noreturn]] void refuse(const std::string &key, const std::string &value, const std::string &error) {
  krel_fatal("event system: %s is \"%s\": %s\n", key.c_str(), value.c_str(), error.c_str());
}

}  // namespace

bool krelev_parse_threads(std::string_view text, uint32_t *out, std::string *error) {
  if (parse_number(text, 1, k_most_loops, out)) return true;
  *error = fmt::format("write a number of threads from 1 to {}", k_most_loops);
  return false;
}

bool krelev_parse_jobq(std::string_view text, krelev_jobq_settings_t *out, std::string *error) {
  std::vector<std::string_view> parts = split(text);
  krelev_jobq_settings_t settings;
  *error = "write concurrency,min,max[,gc|none][,backlog][,lifo|fifo]";
  if (parts.size() < 3 || !parse_number(parts[0], 1, k_most_workers, &settings.concurrency) ||
      !parse_number(parts[1], 0, k_most_workers, &settings.min) ||
      !parse_number(parts[2], 1, k_most_workers, &settings.max))
    return false;
  size_t i = 3;
  if (i < parts.size() && (parts[i] == "gc" || parts[i] == "none")) settings.memory_safety = parts[i++] == "gc";
  if (i < parts.size() && parse_number(parts[i], 0, UINT32_MAX, &settings.max_backlog)) ++i;
  if (i < parts.size() && (parts[i] == "lifo" || parts[i] == "fifo")) settings.lifo = parts[i++] == "lifo";
  if (i != parts.size()) return false;
  if (settings.min > settings.concurrency || settings.concurrency > settings.max) {
    *error = "the concurrency must lie between min and max";
    return false;
  }
  settings.configured = true;
  *out = settings;
  return true;
}

krelev_setup_t krelev_setup_from(const std::map<std::string, std::string> &keys) {
  krelev_setup_t setup = {std::max(2u, std::thread::hardware_concurrency()), {}, {}};
  bool has_default_queue = false;
  std::string error;
  for (const auto &[key, value] : keys) {
    if (key == "concurrency") {
      if (!krelev_parse_threads(value, &setup.default_threads, &error)) refuse(key, value, error);
    } else if (key.starts_with("loop_") && is_name(key.substr(5)) && key != "loop_default") {
      uint32_t threads;
      if (!krelev_parse_threads(value, &threads, &error)) refuse(key, value, error);
      setup.further_pools.emplace_back(key.substr(5), threads);
    } else if (key.starts_with("jobq_") && is_name(key.substr(5))) {
      krelev_jobq_settings_t settings;
      if (!krelev_parse_jobq(value, &settings, &error)) refuse(key, value, error);
      has_default_queue |= key.substr(5) == k_krelev_default_queue;
      setup.job_queues.emplace_back(key.substr(5), settings);
    } else {
      refuse(key, value, "there is no such key: concurrency, loop_NAME and jobq_NAME are known");
    }
  }
  if (!has_default_queue) setup.job_queues.emplace_back(k_krelev_default_queue, k_default_queue);
  return setup;
}

void krelev_read_configuration(std::map<std::string, std::string> *keys) {
  std::set<std::string> seen;
  for (const krel_conf_section_t &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "//krelev/config/*")) {
    std::string key = krel_conf_section_name(section);
    std::string value;
    krel_conf_get_string(section, ".", &value);
    if (key == "default_ca_chain") continue;  // of connections to peers, not of events
    if (seen.insert(key).second) (*keys)[key] = value;
  }
}
