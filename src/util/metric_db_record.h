#pragma once
// The tab-separated lines in which nodes hand each other the names of metrics:
//   M  account id  check uuid  check name  metric name  category

#include <cstdint>
#include <string_view>

#include "util/mem_reader.h"

enum metric_db_record_type_e : uint8_t {
  METRIC_DB_RECORD_TYPE_M = 1,
  METRIC_DB_RECORD_TYPE_UNKNOWN = 2,
};
metric_db_record_type_e metric_db_record_type_lookup(std::string_view text);

// The readers look into the line.
struct metric_db_record_m_t {
  uint32_t account_id;  // at most INT32_MAX
  std::string_view check_uuid_str;
  uint8_t check_uuid[16];
  mem_reader_t check_name_buf;  // may be empty
  mem_reader_t metric_name_buf;
  uint8_t
      category;  // the kinds of samples known of the metric (velmar_metric_locator_metric_type_e); 0: not told
};

// A line without its newline, behind its record type; nothing is changed. False: it is none.
bool metric_db_record_parse_m(std::string_view line, metric_db_record_m_t *out);
