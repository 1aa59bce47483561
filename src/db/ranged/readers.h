#pragma once
// The readers that the node's numeric reads go through: built once at start, shared by all requests, safe from
// any thread that may block.

#include <memory>

#include "db/ranged/nntbs/rollup_config.h"
#include "db/ranged/ranged.h"
#include "db/surrogate/surrogate.h"

namespace db::raw {
class raw_shard_factory_c;
}

namespace db::ranged {

// What is handed in outlives the readers.
struct ranged_readers_params_t {
  const rollup_config_set_t *rollups = nullptr;           // the periods that the rollup store serves
  const db::raw::raw_shard_factory_c *raw = nullptr;      // null: a node without raw store
  std::shared_ptr<db::surrogate::lookup_synch_c> lookup;  // of the raw samples' metrics
};

// Builds the readers, and the one of imported files from //graphite/whisper (a bad section ends the process).
// At start, after the stores are open and before the first read.
void ranged_readers_init(const ranged_readers_params_t &params);
// After every read has ended.
void ranged_readers_close();

// Null before init. Each reads:
const db::kv::ranged_reader_c *outer_nnt_reader();         // rollups of a period that divides the span
const db::kv::ranged_reader_c *inner_nnt_reader();         // the same, else the smallest period that is coarser
const db::kv::ranged_reader_c *fromRaw_reader();           // raw samples; null on a node without raw store
const db::kv::ranged_reader_c *simple_dispatch_reader();   // rollups, and what lies past them from samples
const db::kv::ranged_reader_c *coarsen_dispatch_reader();  // the same, and where both lack coarser rollups
const db::kv::ranged_reader_c *inner_dispatch_reader();    // samples, their gaps from rollups; null as above

}  // namespace db::ranged
