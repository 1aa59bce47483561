#pragma once
// A shard of either engine in a directory of its own, and blocks to put into it.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>

#include "db/ranged/nntbs/shard/btree_file.h"
#include "db/ranged/nntbs/shard/rollup_shard_provider.h"
#include "support/temp_dir.h"

namespace db::ranged::nntbs {

constexpr int32_t PERIOD = 60;
constexpr uint64_t SPAN = 127 * 60;
constexpr uint64_t SMALL_MAP = 1 << 20;

inline const char *name_of(rollup_storage_e storage) {
  return storage == rollup_storage_e::lmdb ? "lmdb" : "mdbx";
}
inline const char *data_file_of(rollup_storage_e storage) {
  return storage == rollup_storage_e::lmdb ? "data.mdb" : "mdbx.dat";
}

// A block whose content follows from its place and a seed.
inline nntbs_block_t make_block(uint64_t sid, uint64_t floor, uint32_t seed = 0) {
  nntbs_block_t block;
  block_init(&block, 1);
  std::mt19937 random(static_cast<uint32_t>(sid * 7919 + floor) + seed);
  for (size_t slot = 0; slot < BLOCK_SLOTS; ++slot) {
    nnt_multitype cell{};
    cell.type = NNT_TYPE_UINT64;
    cell.count = random() & 0xffffff;
    cell.value.v_uint64 = random();
    block_set_cell(&block, slot, cell);
  }
  block_seal(&block);
  return block;
}
inline bool same(const nntbs_block_t &a, const nntbs_block_t &b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

class shard_test_c : public testing::TestWithParam<rollup_storage_e> {
 protected:
  rollup_shard_sp make_shard(uint64_t initial_map_size = SMALL_MAP) {
    return make_shard_at(path(), initial_map_size);
  }
  rollup_shard_sp make_shard_at(const std::string &at, uint64_t initial_map_size = SMALL_MAP) {
    const rollup_shard_key_c key(0, PERIOD, static_cast<int32_t>(1000 * SPAN));
    const rollup_shard_provider_c provider(GetParam(), rollup_lmdb_default_flags());
    return provider.provide(key, std::make_shared<rollup_shard_anchor_c>(at, rollup_shard_latency_t{}),
                            initial_map_size);
  }
  std::string path() const { return m_dir / "60_0-7620000"; }
  const btree_format_t &format() const {
    return GetParam() == rollup_storage_e::lmdb ? LMDB_FORMAT : MDBX_FORMAT;
  }
  std::string file() const { return path() + "/" + data_file_of(GetParam()); }

  // Writes blocks of metrics sid to last_sid in one transaction, again when the shard has grown on the way.
  static std::error_code put_blocks(const rollup_shard_sp &shard, uint64_t sid, uint64_t first, uint64_t count,
                                    uint32_t seed = 0, uint64_t last_sid = 0, uint64_t step = 1) {
    for (;;) {
      auto [error, txn] = shard->start_write_transaction();
      for (uint64_t s = sid; s <= std::max(sid, last_sid); s += step)
        for (uint64_t i = first; !error && i < first + count; ++i)
          error = txn->put(s, i * SPAN, make_block(s, i * SPAN, seed));
      if (!error) error = txn->commit_write();
      if (error != storage_errc_e::map_full) return error;
    }
  }
  static bool has_block(const rollup_shard_sp &shard, uint64_t sid, uint64_t index, uint32_t seed = 0) {
    auto [error, txn] = shard->start_read_transaction();
    nntbs_block_t block;
    uint64_t floor = index * SPAN;
    return !error && !txn->seek(sid, &floor, &block) && floor == index * SPAN &&
           same(block, make_block(sid, floor, seed));
  }

  temp_dir_c m_dir;
};

// Both engines go through the same tests.
#define INSTANTIATE_ENGINES(suite)                                                                          \
  INSTANTIATE_TEST_SUITE_P(engines, suite, testing::Values(rollup_storage_e::lmdb, rollup_storage_e::mdbx), \
                           [](const auto &of) { return name_of(of.param); })

}  // namespace db::ranged::nntbs
