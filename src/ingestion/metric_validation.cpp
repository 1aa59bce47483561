#include "ingestion/metric_validation.h"

#include <atomic>
#include <string>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace db::ingestion {

namespace {

constexpr uint64_t DEFAULT_MAX_OLD_AGE_MS = 315360000000;  // 3650 days
constexpr uint64_t FIRST_MICROSECONDS = 999999999999999, LAST_SECONDS = 999999999998;

std::atomic<uint64_t> max_old_age_time{DEFAULT_MAX_OLD_AGE_MS};
std::atomic<uint64_t> log_old_metrics_age{0};

krel_log_stream_t *old_data_log() {
  static krel_log_stream_t *stream = krel_log_stream_find("debug/old_data");
  return stream;
}

bool read_duration(const char *path, uint64_t *milliseconds) {
  std::string text;
  if (!krel_conf_get_string(KREL_CONF_ROOT, path, &text)) return false;
  if (!krel_confstr_parse_duration(text, krel_get_durations_ms(), milliseconds))
    krel_fatal("could not parse metric_age_threshold parameter in old_data_logging config: %s", text.c_str());
  return true;
}

}  // namespace

void metric_validation_init() {
  uint64_t value = 0;
  const bool age = read_duration("//velmar/validation/@metric_age_threshold", &value);
  if (age) set_max_ingestion_age(value);
  if (read_duration("//velmar/validation/@metric_age_threshold_in_ms", &value)) {
    if (age)
      krel_fatal(
          "cannot use both validation/@metric_age_threshold_in_ms and validation/@metric_age_threshold. Please "
          "use "
          "validation/@metric_age_threshold\n");
    krel_log(krel_error,
             "WARNING: validation/metric_age_threshold_in_ms is deprecated. Please use "
             "validation/metric_age_threshold");
    set_max_ingestion_age(value);
  }
  const bool log_age = read_duration("//velmar/validation/@metric_log_age_threshold", &value);
  if (log_age) set_old_data_logging_threshold(value);
  if (read_duration("//velmar/old_data_logging/@metric_age_threshold", &value)) {
    if (log_age)
      krel_fatal(
          "cannot use both old_data_logging/@metric_age_threshold and validation/@metric_log_age_threshold. "
          "Please use "
          "validation/@metric_log_age_threshold\n");
    krel_log(krel_error,
             "WARNING: old_data_logging/metric_age_threshold is deprecated. Please use "
             "validation/metric_log_age_threshold");
    set_old_data_logging_threshold(value);
  }
  if (const uint64_t threshold = log_old_metrics_age.load())
    krel_ex_log(krel_notice, "logging all metric data that arrives and is older than {}\n", threshold / 1000);
}

void set_max_ingestion_age(uint64_t milliseconds) {
  max_old_age_time = milliseconds;
}
void set_old_data_logging_threshold(uint64_t milliseconds) {
  log_old_metrics_age = milliseconds;
}

cleanse_time_result_t cleanse_time(uint64_t whence, uint64_t max_ingestion_age, uint64_t now) {
  if (whence >> 63) return {false, cleanse_time_verdict_e::old, 0};
  const uint64_t time = whence >= FIRST_MICROSECONDS ? whence / 1000
                        : whence > LAST_SECONDS      ? whence
                                                     : whence * 1000;
  // milliseconds compare as nanoseconds would, and cannot overflow
  if (time > now && time - now > max_ingestion_age) return {false, cleanse_time_verdict_e::future, time};
  if (time < now && now - time > max_ingestion_age) return {false, cleanse_time_verdict_e::old, time};
  return {true, cleanse_time_verdict_e::ok, time};
}

cleanse_time_result_t cleanse_time(uint64_t whence, uint64_t max_ingestion_age) {
  return cleanse_time(whence, max_ingestion_age, krel_now_ms());
}
cleanse_time_result_t cleanse_time_at(uint64_t whence, uint64_t now) {
  return cleanse_time(whence, max_old_age_time.load(std::memory_order_relaxed), now);
}
cleanse_time_result_t cleanse_time(uint64_t whence) {
  return cleanse_time_at(whence, krel_now_ms());
}

bool logs_old_data() {
  return log_old_metrics_age.load(std::memory_order_relaxed) != 0;
}

void log_old_data(const char *function, uint64_t time, uint64_t now, int32_t account_id,
                  std::string_view check_uuid, std::string_view name) {
  const uint64_t threshold = log_old_metrics_age.load(std::memory_order_relaxed);
  if (threshold == 0 || time >= now || now - time < threshold) return;
  krel_ex_log(old_data_log(),
              "old data received: account:{}, check_uuid:{}, metric_name:{}, age:{}, current_time:{}, "
              "metric_timestamp:{}s, parent_function: {}\n",
              account_id, check_uuid, name.empty() ? "unknown" : name, now - time, now, time / 1000, function);
}

void log_old_data(const char *function, uint64_t time, uint64_t now, const velmar_metric_locator_t *locator) {
  if (!logs_old_data()) return;
  char uuid[KREL_UUID_STR_LEN + 1];
  krel_uuid_unparse_lower(velmar_metric_locator_get_check_uuid(locator), uuid);
  log_old_data(function, time, now, velmar_metric_locator_get_account_id(locator), uuid,
               {velmar_metric_locator_get_name_with_tags(locator),
                velmar_metric_locator_get_name_len_with_tags(locator)});
}

}  // namespace db::ingestion
