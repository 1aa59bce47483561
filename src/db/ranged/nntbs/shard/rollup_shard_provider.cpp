#include "db/ranged/nntbs/shard/rollup_shard_provider.h"

#include "db/ranged/nntbs/shard/kv_rollup_shard.h"
#include "util/io/files.h"

namespace db::ranged::nntbs {

rollup_shard_sp rollup_shard_provider_c::provide(const rollup_shard_key_c &key,
                                                 std::shared_ptr<rollup_shard_anchor_c> anchor,
                                                 uint64_t initial_map_size) const {
  util::io::files_c &files = util::io::system_files();
  rollup_storage_e storage = m_storage;
  if (files.exists(anchor->_shard_path + "/" + MDBX_DATA_FILE))
    storage = rollup_storage_e::mdbx;
  else if (files.exists(anchor->_shard_path + "/" + LMDB_DATA_FILE))
    storage = rollup_storage_e::lmdb;
  kv_rollup_shard_c *shard;
  if (storage == rollup_storage_e::mdbx)
    shard = new mdbx_rollup_shard_c(key, std::move(anchor));
  else
    shard = new lmdb_rollup_shard_c(key, std::move(anchor), m_lmdb_flags, initial_map_size);
  const rollup_shard_sp counted(shard);
  shard->check_storage();
  return counted;
}

uint32_t rollup_lmdb_default_flags() {
  return LMDB_DEFAULT_FLAGS;
}

}  // namespace db::ranged::nntbs
