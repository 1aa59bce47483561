#pragma once
// The settings of a raw store: //velmar/raw_database for numbers, //velmar/histogram_ingest for histograms.

#include <cstdint>
#include <string>

#include "db/raw/raw_shard_factory.h"

namespace db::raw {

struct raw_store_config_t {
  bool configured = false;             // it has a location
  raw_shard_factory_params_t factory;  // basedir, description and durations
  uint32_t streaming_limit = 10000;
  std::string suppress_rollup_filter;  // a tag search; empty: none
};

// element: "raw_database" or "histogram_ingest". Makes the directory. A bad value is fatal.
raw_store_config_t read_raw_store_config(const char *element, const char *node_id);

}  // namespace db::raw
