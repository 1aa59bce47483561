#pragma once
// A metric as tag search sees it: its name, its stream tags and the check it belongs to.

#include <string_view>

#include "platform/dorn/dorn_tagset.h"

struct dorn_metric_id_t {
  std::string_view name;        // without blocks; looks into the caller's text
  std::string_view check_uuid;  // lower-case text, looks into the caller's; empty: unknown
  dorn_metric_tagset_t stream_tags;
};

// Cuts the name and parses its tags, canonical or not; the name must outlive the id. False leaves a cleared id:
// the name is not valid. Any previous content of the id must have been cleared.
bool dorn_metric_id_process_tags(dorn_metric_id_t *id, const char *name, size_t name_len,
                                 std::string_view check_uuid);
void dorn_metric_id_clear(dorn_metric_id_t *id);
