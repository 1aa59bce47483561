#pragma once
// Histogram samples on their way through the node, chained, and the text lines they arrive in:
//   H1 (gauge) or H2 (cumulative)  time  check name`check uuid  metric name  base64 histogram

#include <cstdint>
#include <memory>
#include <string>

#include "platform/krel/base/thread_annotations.h"
#include "platform/tolvllhist/tolvllhist.h"
#include "util/mem_reader.h"
#include "util/metric_locator.h"

namespace db::surrogate {
class value_c;
}

struct hist_free_t {
  void operator()(histogram_t *hist) const { hist_free(hist); }
};
using hist_ptr = std::unique_ptr<histogram_t, hist_free_t>;

struct histogram_entries_t {
  uint64_t offset = 0;  // milliseconds
  bool cumulative = false;
  bool is_local = false;
  int32_t account_id = 0;
  metric_locator_sp metric_locator;
  std::string histogram;                                    // base64; empty when only the other is there
  hist_ptr materialized_histogram;                          // or null
  const db::surrogate::value_c *surrogate_value = nullptr;  // the surrogate writer's answer, not owned
  histogram_entries_t *next = nullptr;                      // owned by the chain

  histogram_entries_t() = default;
  histogram_entries_t(const histogram_entries_t &other);  // a deep copy, unchained
  histogram_entries_t &operator=(const histogram_entries_t &) = delete;
};

void free_histogram_entry_chain(histogram_entries_t *head);  // null is allowed

// A chain; frees what it holds.
struct histogram_data_t {
  int count = 0;
  histogram_entries_t *head = nullptr;
  histogram_entries_t *tail = nullptr;

  histogram_data_t() = default;
  histogram_data_t(const histogram_data_t &) = delete;
  histogram_data_t &operator=(const histogram_data_t &) = delete;
  ~histogram_data_t() { free_histogram_entry_chain(head); }
};

// Append a sample with another reference on the locator. The mutex, if given, guards the chain. False, with a
// line in the log, when the list, the locator or the value is missing.
bool add_histogram_to_list(histogram_data_t *list, uint64_t time_ms, velmar_metric_locator_t *locator,
                           const mem_reader_t *b64, bool cumulative, krel_mutex_c *mutex);
bool add_materialized_histogram_to_list(histogram_data_t *list, uint64_t time_ms,
                                        velmar_metric_locator_t *locator, hist_ptr histogram, bool cumulative,
                                        krel_mutex_c *mutex);

// A decoded line. The value looks into the line.
struct histogram_line_t {
  uint64_t whence_ms = 0;
  bool cumulative = false;
  uint32_t account_id = 0;
  metric_locator_sp metric_locator;  // of that account, of type histogram
  mem_reader_t value;
  hist_ptr histogram;
};
enum histogram_line_error_e : int {
  HISTOGRAM_LINE_TYPE = -1,
  HISTOGRAM_LINE_TIME = -2,
  HISTOGRAM_LINE_CHECK = -3,
  HISTOGRAM_LINE_UUID = -4,
  HISTOGRAM_LINE_NAME = -5,
  HISTOGRAM_LINE_TAGS = -6,
  HISTOGRAM_LINE_VALUE = -7,
  HISTOGRAM_LINE_HISTOGRAM = -8,
};
// 1, or the error of the first bad field. The line, with its record type, is not changed.
int decode_histogram_string(const mem_reader_t *line, histogram_line_t *out);
// The base64 text alone; null, with a line in the log, when it is no histogram.
hist_ptr decode_histogram_value(const mem_reader_t *b64);
