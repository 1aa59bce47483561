#pragma once
// Reading a metric's samples across the shards of a store, in order of time.

#include <cstdint>
#include <functional>
#include <string>

#include "db/raw/raw_shard_factory.h"
#include "db/raw/record/raw_entry.h"

namespace db::raw {

class reader_c {
 public:
  explicit reader_c(const raw_shard_factory_c *factory) : m_factory(factory) {}

  // Takes the sample's value; false ends the read.
  using sample_f = std::function<bool(uint64_t ts_ms, raw_value_c &&value)>;
  // Every sample of [start_ms, end_ms). Holds one position at a time, whatever the range. Shards that are not
  // online are passed over, and named in *offline. False with the reason when a shard's data is wrong: what was
  // given until then stands. Blocks: on a "data_read" thread or the like.
  bool read_range(const metric_locator_sp &locator, uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                  const sample_f &on_sample, std::string *error, std::string *offline = nullptr) const;

 private:
  const raw_shard_factory_c *const m_factory;
};

}  // namespace db::raw
