#pragma once
// Statistics: a tree of namespaces under a recorder, with handles at the leaves.
// Updates are safe from any thread and never contend: counters and histograms are per-thread cells,
// summed when they are read. Registration takes a lock and is for start-up; handles live as long as
// their recorder.

#include <cstdint>
#include <functional>
#include <string>

struct stats_recorder_t;
struct stats_ns_t;
struct stats_handle_t;

// Kinds. The printed letter: i I l L n s h.
enum stats_kind_e : int {
  STATS_TYPE_STRING = 1,     // set
  STATS_TYPE_GAUGE_U64 = 2,  // gauge: set, add
  STATS_TYPE_INT32 = 3,
  STATS_TYPE_UINT32 = 4,
  STATS_TYPE_COUNTER = 5,  // add only
  STATS_TYPE_DOUBLE = 6,
  STATS_TYPE_HISTOGRAM = 7,
  STATS_TYPE_INT64 = 8,
};

stats_recorder_t *stats_recorder_alloc();
void stats_recorder_free(stats_recorder_t *recorder);
stats_ns_t *stats_recorder_global_ns(stats_recorder_t *recorder);
// The child namespace of that name, made when missing. A null parent is the global one.
stats_ns_t *stats_register_ns(stats_recorder_t *recorder, stats_ns_t *parent, const char *name);
void stats_ns_add_tag(stats_ns_t *ns, const char *category, const char *value);
// Runs before the namespace is read (process figures and the like).
void stats_ns_invoke(stats_ns_t *ns, std::function<void()> refresh);

// The statistic of that name; an existing one of the same kind is returned again. Null, with an error logged,
// when the name is taken by another kind: all calls below do nothing with a null handle.
stats_handle_t *stats_register(stats_ns_t *ns, const char *name, int kind);
void stats_handle_tagged_name(stats_handle_t *handle, const char *name);  // name in the tagged output
void stats_handle_tagged_suppress(stats_handle_t *handle, bool suppress);
void stats_handle_add_tag(stats_handle_t *handle, const char *category, const char *value);
// The value is read from `memory` (of the kind's C type) at each reading; it must outlive the recorder.
void stats_observe(stats_handle_t *handle, int kind, const void *memory);
// The value is asked of the function at each reading.
void stats_invoke(stats_handle_t *handle, std::function<double()> function);

void stats_add64(stats_handle_t *handle, int64_t amount);
// value points at the kind's C type (const char for a string), which need not be the handle's: numbers are
// converted. A histogram counts the value once. Not for counters. A gauge below zero shows as 0.
void stats_set(stats_handle_t *handle, int kind, const void *value);
// Counts `count` times the value `value` x 10^scale.
void stats_set_hist_intscale(stats_handle_t *handle, int64_t value, int scale, uint64_t count);

// Nested JSON; leaves {"_type":T,"_value":V}. simple: leaves are the bare values. A histogram's value is an
// object from bin text to count. reset: counters and histograms begin anew for the JSON forms.
std::string stats_recorder_output_json(stats_recorder_t *recorder, bool simple, bool reset);
// One flat object keyed name|ST[tags].
std::string stats_recorder_output_json_tagged(stats_recorder_t *recorder, bool reset);
// Prometheus text format, version 0.0.4. Resets do not show: what counts only ever grows.
std::string stats_recorder_output_prometheus(stats_recorder_t *recorder);
