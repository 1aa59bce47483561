#pragma once
// From lines to a batch of the raw put path: what the TCP listener and the HTTP route have in common.

#include <array>
#include <cstddef>
#include <cstdint>

#include "be/raw/known_metrics.h"
#include "be/raw/raw_batch.h"
#include "be/raw/raw_counters.h"

namespace be::graphite {

// What a line does not say of its metric: the path of a request or the listener's configuration does.
struct source_t {
  std::array<uint8_t, 16> check_uuid;
  int32_t account_id;
};

// Complete lines, `line_count` of them, each with its newline. A bad line is logged on "error/graphite" and
// counted; it never costs its neighbours. Inside a memory section, on any thread that may work for long.
void rest_graphite_mgr_parse_ingestion_data(const source_t &source, atomic_counters_t *counters,
                                            raw::known_metrics_c *known, const char *text, size_t length,
                                            size_t line_count, raw::raw_batch_t *batch);
// Counts a line that was dropped without a look at it.
void count_dropped_line();

// Why this node takes no samples now, as HTTP puts it; null: it takes them.
struct refusal_t {
  int status;
  const char *reason, *body;
};
const refusal_t *refusal();

}  // namespace be::graphite

// Finds the log streams and registers the statistics be.graphite. At start.
void rest_graphite_mgr_init();
