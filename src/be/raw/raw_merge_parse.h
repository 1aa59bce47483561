#pragma once
// What a peer merges into this node's raw store: lines of samples as POST /raw takes them, and lines that only
// name a metric.

#include <vector>

#include "be/raw/raw_batch.h"
#include "be/raw/raw_put_request.h"

namespace be::raw {

// Complete lines, each with its newline; the text is changed. Samples go to the batch, marked as not for the
// journals: the peer sends them to every owner itself. The metrics of the other lines go to `named`. What this
// node does not own is an error, like a line that cannot be read. False: the chunk is given up. Within a memory
// section.
bool rest_raw_mgr_reconstitute_metrics_parse(raw_put_request_t *request, known_metrics_c *known, char *text,
                                             size_t length, size_t line_count, raw_batch_t *batch,
                                             std::vector<metric_locator_sp> *named);

// Makes the metrics known to the surrogate database, without an activity. What it knew of them stays. Blocks.
void raw_mgr_write_named_metrics(raw_put_request_t *request, const std::vector<metric_locator_sp> &named);

}  // namespace be::raw
