#include "db/surrogate3/coordinator_factory.h"

#include <bit>
#include <thread>

#include "db/surrogate3/coordinator.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

namespace {

constexpr uint32_t MAX_READERS = 1024;
constexpr size_t DEFAULT_CAPACITY = 96000000;  // of all readers

uint32_t read_concurrency() {
  uint32_t wanted = std::max(std::thread::hardware_concurrency(), 1u);
  krel_conf_get_uint32(KREL_CONF_ROOT, "//surrogate_database/@runtime_concurrency", &wanted);
  if (wanted > MAX_READERS)
    krel_fatal("//surrogate_database/@runtime_concurrency is %u, at most %u is possible\n", wanted,
               MAX_READERS);
  const uint32_t rounded = std::bit_ceil(std::max(wanted, 1u));
  if (rounded != wanted) krel_ex_log(krel_notice, "Updated \"runtime_concurrency\" to {}\n", rounded);
  return rounded;
}

std::string read_location(const std::string &node_id) {
  std::string location;
  krel_conf_get_string(KREL_CONF_ROOT, "//surrogate_database/@location", &location);
  if (location.empty()) krel_fatal("No surrogate database path specified in config\n");
  constexpr std::string_view token = "{node}";
  if (const size_t at = location.find(token); at != std::string::npos)
    location.replace(at, token.size(), node_id);
  return location;
}

}  // namespace

std::shared_ptr<coordinator_c> coordinator_factory_c::create(const std::string &node_id) {
  const std::string location = read_location(node_id);
  coordinator_config_t config;
  config.num_threads = read_concurrency();
  uint64_t page_size = config.max_page_size, capacity = DEFAULT_CAPACITY / config.num_threads;
  krel_conf_get_uint64(KREL_CONF_ROOT, "//surrogate_database/@max_page_size", &page_size);
  krel_conf_get_uint64(KREL_CONF_ROOT, "//surrogate_database/@capacity_per_reader_shard", &capacity);
  config.max_page_size = page_size;
  config.capacity_per_reader_shard = capacity;
  krel_ex_log(krel_notice,
              "s3 configuration\n\tmax_page_size_for_batching: {}\n\tcapacity_per_reader_shard: "
              "{}\n\tnum_thread : {}\n",
              config.max_page_size, config.capacity_per_reader_shard, config.num_threads);
  auto coordinator = std::make_shared<coordinator_c>(
      config, std::make_unique<dir_based_file_selection_strategy_c>(location + "/flatbuffers"));
  coordinator->prime_cache();
  return coordinator;
}

}  // namespace db::surrogate3
