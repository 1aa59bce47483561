#pragma once
// What one family's walk gathers of the metric in hand, and how it gets to the targets. One thread at a time;
// reused from metric to metric.

#include <cstdint>
#include <memory>
#include <string_view>

#include "db/raw/rollup/rollup_store.h"

namespace db::raw {

class rollup_data_c {
 public:
  virtual ~rollup_data_c() = default;
  // Forgets the metric before. Metrics come in the order of keys, their records in order of time.
  virtual void start(uint64_t surrogate_id) = 0;
  // A record of right checksum, type and shape. False: it holds measurements out of order, which are left out.
  virtual bool add_record(uint32_t floor_s, std::string_view record) = 0;
  // Puts the cells into the targets. False: some were not stored.
  virtual bool write_entries_to_disk(const metric_locator_sp &locator) = 0;
  // Gives the next shard what it needs of this metric. False: it could not be kept.
  virtual bool hand_on(const metric_locator_sp &locator) = 0;
  // After the last metric.
  virtual bool finish() = 0;
  virtual uint64_t get_sample_count() const = 0;  // of the metric
};

// A sample carried over from the preceding shard lies before this one: it gives the first sample a rate.
std::unique_ptr<rollup_data_c> make_numeric_rollup_data(const rollup_pass_t &pass);
// resume_at: the metric that a pass which was cut short goes on at; 0: from the start.
std::unique_ptr<rollup_data_c> make_histogram_rollup_data(const rollup_pass_t &pass, size_t family,
                                                          uint64_t resume_at);

}  // namespace db::raw
