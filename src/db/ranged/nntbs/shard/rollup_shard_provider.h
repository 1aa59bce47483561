#pragma once
// Which engine a shard lives in.

#include <memory>

#include "db/ranged/nntbs/shard/rollup_shard.h"

namespace db::ranged::nntbs {

enum class rollup_storage_e { lmdb, mdbx };

class rollup_shard_provider_c {
 public:
  // lmdb_flags: environment flags of LMDB shards.
  rollup_shard_provider_c(rollup_storage_e storage, uint32_t lmdb_flags)
      : m_storage(storage), m_lmdb_flags(lmdb_flags) {}

  // The shard at the anchor's path, of the engine whose data file is there, else of the configured one. Its
  // storage is not opened, but a file with a bad head makes it OFFLINE_CORRUPTED. initial_map_size (bytes) is
  // for LMDB. Never null.
  rollup_shard_sp provide(const rollup_shard_key_c &key, std::shared_ptr<rollup_shard_anchor_c> anchor,
                          uint64_t initial_map_size) const;

 private:
  const rollup_storage_e m_storage;
  const uint32_t m_lmdb_flags;
};

uint32_t rollup_lmdb_default_flags();

}  // namespace db::ranged::nntbs
