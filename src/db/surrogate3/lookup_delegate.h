#pragma once
// One reader: the part of the metrics that its thread answers for, by name and by id. One thread only.

#include <memory>
#include <span>
#include <vector>

#include "db/surrogate3/codec/oil_decoder_composite.h"
#include "util/metric_locator.h"

struct stats_handle_t;

namespace db::surrogate3 {

class lookup_delegate_c {
 public:
  // `capacity`: for how many metrics, at most, room is made ahead of need.
  lookup_delegate_c(uint32_t number, size_t capacity);
  ~lookup_delegate_c();

  // ---- metrics whose name selects this reader
  struct found_t {
    uint64_t id = 0;            // 0: unknown
    metric_locator_sp locator;  // the canonical one, when it is at hand here
  };
  // By its name; an id that it bears does not matter. With `remember`, what the files say is kept, so that the
  // next search does not go to them.
  found_t find_surrogate(const velmar_metric_locator_t *ml, bool remember);
  void accept_locator_by_key(const metric_locator_sp &canonical);
  void evict_locator(const velmar_metric_locator_t *ml);  // its id is deleted

  // ---- metrics whose id selects this reader
  // The canonical locator, with its activity; null when unknown or deleted. One that is read from a file is
  // made canonical here, and appended to `built`, so that the reader its name selects can have it, too.
  metric_locator_sp find_locator(uint64_t id, std::vector<metric_locator_sp> *built);
  void accept_locator_by_id(const metric_locator_sp &canonical);
  // Deletes the id and takes the canonical mark from its locator. Null: there is none.
  metric_locator_sp evict_locator(uint64_t id);

  // ---- files. Both give back what they replace.
  std::vector<surrogate_decoder_sp> replace_decoders(std::vector<surrogate_decoder_sp> decoders,
                                                     uint64_t max_surrogate_id, size_t expected_metrics);
  std::vector<oil_decoder_sp> replace_decoders(std::vector<oil_decoder_sp> decoders);

  // After any of the above: the statistics follow, and pages of files that were read through are let go.
  void settle();

 private:
  bool has_tombstone(uint64_t id, const surrogate_decoder_c *not_older_than) const;
  uint64_t find_in_files(const velmar_metric_locator_t *ml) const;
  void raise_max(uint64_t id);
  void count_file_read();

  struct tables_t;
  const size_t _capacity;
  std::vector<surrogate_decoder_sp> _decoders;  // newest first
  oil_decoder_composite_c _oil_decoders;
  std::unique_ptr<tables_t> _tables;
  uint64_t _max_surrogate_id = 0;
  size_t _file_reads = 0;  // since pages were let go
  stats_handle_t *_stat_ml_to_id_size, *_stat_id_to_ml_size, *_stat_max_surrogate_id;
};

}  // namespace db::surrogate3
