#pragma once
// Reading a metric's samples across the shards of a store, in order of time.

#include <cstdint>
#include <functional>
#include <optional>
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

  // ---- of the numeric store
  // The same without a step for each sample: the receiver gets them in pieces.
  bool read_numeric(const metric_locator_sp &locator, uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                    const raw_reader_asynch_c::numeric_samples_f &on_samples, std::string *error,
                    std::string *offline = nullptr) const;
  // The last sample of [from_ms, before_ms) that is no null, if only as a shard carried it over from the one
  // before. None also when the read failed: *error tells.
  std::optional<nom_sample_t> find_last_number(uint64_t surrogate_id, uint64_t from_ms, uint64_t before_ms,
                                               std::string *error) const;
  // The times of the metric's first and last sample, nulls among them.
  std::optional<uint64_t> find_first_time(uint64_t surrogate_id, std::string *error) const;
  std::optional<uint64_t> find_last_time(uint64_t surrogate_id, std::string *error) const;

 private:
  // A shard that is online, and the part of the range that it can hold samples of.
  struct part_t {
    shard_sp shard;
    uint64_t shard_start_ms, shard_end_ms, at_ms;
  };
  bool for_each_part(uint64_t start_ms, uint64_t end_ms, std::string *offline,
                     const std::function<bool(const part_t &part)> &function) const;

  const raw_shard_factory_c *const m_factory;
};

}  // namespace db::raw
