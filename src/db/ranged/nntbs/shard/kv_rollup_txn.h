#pragma once
// A transaction of a shard over a key-value store. It shares the anchor's mutex and holds a reference to the
// shard until it ends.

#include <memory>

#include "db/ranged/nntbs/shard/kv_rollup_shard.h"

namespace db::ranged::nntbs {

class kv_rollup_txn_c final : public rollup_shard_txn_c {
 public:
  // The caller has locked the anchor's mutex shared; the transaction takes that over.
  kv_rollup_txn_c(kv_rollup_shard_c *shard, std::unique_ptr<kv_txn_c> kv, bool writable);
  ~kv_rollup_txn_c() override;

  std::error_code seek_to_first(uint64_t *sid, uint64_t *block_floor, nntbs_block_t *block) override {
    return move(kv_move_e::first, sid, block_floor, block);
  }
  std::error_code next(uint64_t *sid, uint64_t *block_floor, nntbs_block_t *block) override {
    return move(kv_move_e::next, sid, block_floor, block);
  }
  std::error_code seek(uint64_t sid, uint64_t *block_floor, nntbs_block_t *block) override;
  std::error_code put(uint64_t sid, uint64_t block_floor, const nntbs_block_t &block) override;
  void stop_read() override;
  void abort_write() override;
  std::error_code commit_write() override;

  // at_or_after looks at *sid and *block_floor. Keys that are none are passed over.
  std::error_code move(kv_move_e how, uint64_t *sid, uint64_t *block_floor, nntbs_block_t *block);
  std::error_code erase();  // where the last move stands

 private:
  std::error_code failed(const char *where, int code);
  std::error_code grow(int code);
  void end() NO_THREAD_SAFETY_ANALYSIS;  // unlocks what the caller of the constructor locked

  const rollup_shard_sp m_shard_ref;
  kv_rollup_shard_c *const m_shard;
  std::unique_ptr<kv_txn_c> m_kv;
  const uint64_t m_resize_gen;
  const uint64_t m_start_us;
  const bool m_writable;
  shard_txn_state_e _state;
};

}  // namespace db::ranged::nntbs
