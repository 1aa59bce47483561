// Deleting within a shard, which this engine does at once.

#include "db/ranged/nntbs/shard/kv_rollup_txn.h"
#include "platform/krel/base/krel_log.h"

namespace db::ranged::nntbs {

std::error_code mdbx_rollup_shard_c::delete_before(uint64_t sid, uint64_t new_epoch) {
  std::error_code error;
  do {
    error = delete_once(sid, new_epoch);
  } while (error == storage_errc_e::map_full);
  return error;
}

std::error_code mdbx_rollup_shard_c::delete_once(uint64_t sid, uint64_t new_epoch) {
  auto [error, txn] = start_transaction(true);
  if (error) return error;
  const auto period = static_cast<uint64_t>(period_s());
  nntbs_block_t block;
  uint64_t floor = 0;
  for (error = txn->seek(sid, &floor, &block); !error && floor < new_epoch;) {
    if (floor + block_span_s(period) < new_epoch) {
      error = txn->erase();
      if (error && error != storage_errc_e::map_full)
        krel_log(krel_error, "NNTBS -- timeshard::delete_before, cursor_del failed: %d, sid: %lu\n",
                 error.value(), sid);
    } else {
      block_clear_before(&block, floor, period, new_epoch);
      block_seal(&block);
      error = txn->put(sid, floor, block);
    }
    if (!error) error = txn->seek(sid, &++floor, &block);
  }
  if (error && error != storage_errc_e::not_found) return error;
  error = txn->commit_write();
  if (error && error != storage_errc_e::map_full)
    krel_log(krel_error, "NNTBS -- Cannot commit delete transaction: rc: %d (%s), sid: %lu\n", error.value(),
             error_text(error), sid);
  return error;
}

}  // namespace db::ranged::nntbs
