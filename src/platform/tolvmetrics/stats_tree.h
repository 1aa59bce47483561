#pragma once
// The tree behind the handles, for the parts of this library.
//
// Lock order: a recorder's read mutex (one reading at a time), its tree mutex, the cells' pool. Functions
// given by callers run under the read mutex only: they may set statistics.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/krel/base/thread_annotations.h"
#include "platform/tolvmetrics/stats.h"
#include "platform/tolvmetrics/stats_cells.h"

using stats_tags_t = std::vector<std::pair<std::string, std::string>>;  // category, value

struct stats_handle_t {
  stats_handle_t(stats_recorder_t *of, int of_kind);
  ~stats_handle_t();
  stats_handle_t(const stats_handle_t &) = delete;
  stats_handle_t &operator=(const stats_handle_t &) = delete;

  stats_recorder_t *const recorder;
  const int kind;
  const uint32_t slot;                         // of counters and histograms
  alignas(64) std::atomic<uint64_t> value{0};  // of the others: the bits of the kind's C type, widened

  // Under the recorder's tree mutex.
  alignas(64) std::string text;  // of a string
  std::string tagged_name;
  bool tagged_suppress = false;
  stats_tags_t tags;
  const void *observed = nullptr;
  int observed_kind = 0;
  std::function<double()> invoked;
  // What a reset has taken off.
  uint64_t count_before = 0;
  stats_cells::hist_ptr hist_before;
};

struct stats_ns_t {
  stats_recorder_t *recorder = nullptr;
  // Under the recorder's tree mutex.
  stats_tags_t tags;
  std::vector<std::function<void()>> refreshers;
  std::map<std::string, std::unique_ptr<stats_ns_t>> children;
  std::map<std::string, std::unique_ptr<stats_handle_t>> handles;
};

struct stats_recorder_t {
  krel_mutex_c read_mutex;
  krel_mutex_c tree_mutex ACQUIRED_AFTER(read_mutex);
  stats_ns_t global GUARDED_BY(tree_mutex);
};

// A figure as it is read: the kind says which member holds it.
struct stats_figure_t {
  int kind = 0;
  uint64_t u = 0;
  int64_t i = 0;
  double n = 0;
  std::string text;
  stats_cells::hist_ptr hist;  // only bins that have samples matter
};

// Runs the callers' functions, so that the figures are up to date.
void stats_refresh(stats_recorder_t *recorder) REQUIRES(recorder->read_mutex) EXCLUDES(recorder->tree_mutex);
// The figure since the last reset, or since the start.
stats_figure_t stats_read(stats_handle_t *handle, bool since_reset);
// Counts and histograms read from now on begin at this figure, which was read since the last reset.
void stats_reset(stats_handle_t *handle, const stats_figure_t &figure);

// path: the names of the namespaces above, and the statistic's own. tags: of the namespaces and its own.
using stats_visitor_t =
    std::function<void(const std::vector<std::string> &path, const stats_tags_t &tags, stats_handle_t *handle)>;
void stats_visit(const stats_ns_t &global, const stats_visitor_t &visitor);

// Text of valid UTF-8 as a JSON string with its quotes; what is no UTF-8 becomes U+FFFD.
void stats_append_json_string(std::string *out, std::string_view text);
// The same replacement, and each byte through `escape`.
void stats_append_clean(std::string *out, std::string_view text,
                        const std::function<void(std::string *, char)> &escape);
std::string stats_join(const std::vector<std::string> &path, char separator);
