#pragma once
// The writer: gives ids out and writes the data files. One thread only.

#include <map>

#include "db/surrogate3/codec/surrogate_codec_factory.h"
#include "db/surrogate3/compaction_service.h"
#include "db/surrogate3/lookup_mediator.h"
#include "db/surrogate3/recent_locators.h"
#include "db/surrogate3/write_batch_request.h"

struct stats_handle_t;
namespace util::concurrency {
class executor_c;
}

namespace db::surrogate3 {

// All files at one moment, for a scan.
struct lookup_memento_t {
  std::vector<surrogate_decoder_sp> decoders;  // newest first
  std::vector<oil_decoder_sp> oil_decoders;
};

class write_delegate_c {
 public:
  // All outlive this. Buffers that are done with are freed on `gc_executor`.
  write_delegate_c(const file_selection_strategy_c &fss, lookup_mediator_c &service, gather_tracker_c &gathers,
                   util::concurrency::executor_c &gc_executor);
  ~write_delegate_c();

  // Puts the directories in order, opens every file and shows them to the readers. Once, before all else. A
  // store that cannot be read in whole ends the process.
  void load_all_files();

  // Folds the batch into the canonical locators, gives ids to new metrics and collects what must be stored.
  void write(write_batch_request_t *request);
  // Makes all that was written since the last call durable, in at most one file of each kind; then the
  // readers are given the new metrics.
  void commit_write();
  // The locators are evicted from the readers already. Durable on return.
  void write_tombstones(std::span<const metric_locator_sp> locators);

  lookup_memento_t get_memento() const;
  // Null, as at the start: files are not handed on.
  void set_compaction_services(compaction_service_c<surrogate_decoder_c> *metadata,
                               compaction_service_c<oil_decoder_c> *activity);

 private:
  metric_locator_sp canonical_of(const write_batch_request_t &request, size_t i, bool *is_new);
  void write_entry(write_batch_request_t *request, size_t i);
  void begin_write();
  void build_and_accept_data_file(uint64_t metadata_file_id, uint64_t activity_file_id);
  void update_gauges();

  util::concurrency::executor_c &_gc_executor;
  lookup_mediator_c &_service;
  gather_tracker_c &_gathers;
  const default_codec_factory_c _codec_factory;
  std::unique_ptr<surrogate_encoder_c> _encoder_metadata, _encoder_activity;  // of what is not committed
  compaction_service_c<surrogate_decoder_c> *_surrogate_compaction_service = nullptr;
  compaction_service_c<oil_decoder_c> *_oil_compaction_service = nullptr;
  std::map<uint64_t, surrogate_decoder_sp> _file_id_to_surrogate_decoder;
  std::map<uint64_t, oil_decoder_sp> _file_id_to_oil_decoder;
  uint64_t _surrogate_id_generator = 1;
  uint64_t _metadata_file_id_generator = 1;
  uint64_t _activity_file_id_generator = 1;
  uint64_t _generation = 1;                      // of the metrics that the next commit makes known
  std::vector<metric_locator_sp> _new_locators;  // of this generation
  recent_locators_c _recent;
  stats_handle_t *_metadata_files_gauge, *_activity_files_gauge;
};

}  // namespace db::surrogate3
