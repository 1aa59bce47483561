#pragma once
// A batch's way from the parser to the stores and back to its request's counts.
//
// Threads: raw_mgr_process_batch leaves a parse thread for "raw_ingest"; the surrogate writer answers on
// "sur_cb"; the raw writer on "raw_writer" (or "hist_shard_writer") ends the way.

#include <cstdint>
#include <memory>

#include "be/raw/raw_batch.h"
#include "be/raw/raw_put_request.h"
#include "db/raw/nom/raw_interfaces.h"
#include "db/surrogate/surrogate.h"

struct krelev_jobq_t;

namespace be::raw {

// What the put path stands on; filled by rest_raw_mgr_init, read by all threads afterwards. A null writer: the
// store is not configured.
struct raw_mgr_t {
  known_metrics_c known;
  std::shared_ptr<db::surrogate::writer_asynch_c> surrogate_writer;
  db::raw::raw_writer_asynch_c *numeric_writer = nullptr;
  db::raw::raw_writer_asynch_c *histogram_writer = nullptr;
  krelev_jobq_t *parse_jobq = nullptr;
  krelev_jobq_t *ingest_jobq = nullptr;
  krelev_jobq_t *hist_ingest_jobq = nullptr;
};
raw_mgr_t &raw_mgr();

// Takes samples that other nodes own, too: they go to the journals of their owners. Null: they cannot be
// sent; they are counted, and a line says so once.
class journal_sink_c {
 public:
  virtual ~journal_sink_c() = default;
  // Blocks until the samples are in the journals. False: they are not, and the request must not succeed.
  virtual bool append(const raw_batch_t &batch) = 0;
};
void raw_mgr_set_journal_sink(journal_sink_c *sink);

// Starts the way of a batch under a joiner of the request's tree, which the caller holds a count of.
void raw_mgr_process_batch(raw_put_request_t *request, libvelmar_join_t joiner, raw_batch_t &&batch);

// Samples that could not be sent to their owners since the start.
uint64_t raw_mgr_unsent_samples();

}  // namespace be::raw
