#pragma once
// The rule that every sample's time passes before it is stored. Thresholds are set at start and then read
// without a lock.

#include <cstdint>
#include <string_view>

#include "util/velmar_metric_locator.h"

namespace db::ingestion {

enum class cleanse_time_verdict_e { ok = 0, old = 1, future = 2 };

struct cleanse_time_result_t {
  bool valid;
  cleanse_time_verdict_e verdict;
  uint64_t time;  // milliseconds; set also for a time that is refused, except for a negative one
};

// Reads //velmar/validation and its deprecated twins. A value that does not parse, or both of a pair, is fatal.
void metric_validation_init();
void set_max_ingestion_age(uint64_t milliseconds);
void set_old_data_logging_threshold(uint64_t milliseconds);

// `whence` is seconds, milliseconds or microseconds, told apart by its size. now and max_age: milliseconds.
cleanse_time_result_t cleanse_time(uint64_t whence);
cleanse_time_result_t cleanse_time(uint64_t whence, uint64_t max_ingestion_age);
cleanse_time_result_t cleanse_time(uint64_t whence, uint64_t max_ingestion_age, uint64_t now);
cleanse_time_result_t cleanse_time_at(uint64_t whence, uint64_t now);

// Notes data older than the threshold on "debug/old_data". time and now: milliseconds.
void log_old_data(const char *function, uint64_t time, uint64_t now, const velmar_metric_locator_t *locator);
void log_old_data(const char *function, uint64_t time, uint64_t now, int32_t account_id,
                  std::string_view check_uuid, std::string_view name);
bool logs_old_data();  // cheap test before the parts of a line are put together

}  // namespace db::ingestion
