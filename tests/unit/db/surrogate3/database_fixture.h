#pragma once
// A surrogate database in a directory, and plain ways to use it.

#include <gtest/gtest.h>

#include <map>

#include "db/surrogate3/coordinator.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"
#include "util/io/files.h"
#include "util/oil.h"

namespace db::surrogate3 {

struct metric_write_t {
  metric_locator_sp metric;
  int64_t timestamp_ms = 0;
  bool forced = false;
};

struct metric_result_t {
  uint64_t id;
  metric_locator_sp canonical;
};

inline std::vector<metric_result_t> write_metrics(surrogate::writer_asynch_c &writer,
                                                  const std::vector<metric_write_t> &writes) {
  std::vector<surrogate::write_entry_c> entries;
  for (const metric_write_t &write : writes) {
    surrogate::key_c key;
    key.set_data(write.metric, std::chrono::milliseconds(write.timestamp_ms));
    key.set_force_write(write.forced);
    entries.emplace_back(key, &entries);
  }
  std::vector<metric_result_t> results;
  surrogate::writer_asynch_c::write_surrogate_set_synch(
      &writer, entries.data(), entries.size(),
      [](surrogate::value_manager_c *manager, surrogate::value_reader_c *reader, void *closure) {
        auto *out = static_cast<std::vector<metric_result_t> *>(closure);
        for (size_t i = 0; i < reader->get_count(); ++i)
          out->push_back({reader->get_values()[i].get_surrogate_id(),
                          reader->get_values()[i].get_orig_key().get_metric_locator()});
        manager->free_values(reader);
      },
      nullptr, &results);
  EXPECT_EQ(results.size(), writes.size());
  return results;
}

inline metric_result_t write_metric(surrogate::writer_asynch_c &writer, const metric_locator_sp &metric,
                                    int64_t timestamp_ms = 0) {
  return write_metrics(writer, {{metric, timestamp_ms}})[0];
}

inline std::unique_ptr<coordinator_c> open_database(const std::string &root, uint32_t num_threads = 2,
                                                    util::io::files_c &files = util::io::system_files(),
                                                    size_t max_page_size = 7) {
  static const bool silenced = (krel_log_stream_switch("notice", false), true);
  (void)silenced;
  coordinator_config_t config;
  config.num_threads = num_threads;
  config.max_page_size = max_page_size;
  auto database = std::make_unique<coordinator_c>(
      config, std::make_unique<dir_based_file_selection_strategy_c>(root + "/flatbuffers", files));
  database->prime_cache();
  return database;
}

inline std::vector<uint64_t> file_ids(const std::string &root, spec_e spec) {
  std::vector<uint64_t> ids;
  for (const auto &file : dir_based_file_selection_strategy_c(root + "/flatbuffers").get_files(spec))
    ids.push_back(file.file_id);
  return ids;
}

}  // namespace db::surrogate3
