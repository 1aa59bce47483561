// A shard's file with some bytes changed: it is refused, or everything can be done with it, and what is put
// then can be read. The first byte chooses the engine; each four bytes behind it are a place (24 bits) and the
// byte that is put there.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "db/ranged/nntbs/shard/rollup_shard_provider.h"
#include "platform/krel/base/krel_log.h"

using namespace db::ranged::nntbs;

namespace {

constexpr uint64_t SPAN = 127 * 60, METRICS = 9, BLOCKS = 9;

std::string directory(rollup_storage_e storage) {
  const char *const base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(base) + "/velmar_btree_fuzz." + std::to_string(getpid()) +
         (storage == rollup_storage_e::lmdb ? "/lmdb" : "/mdbx");
}
std::string data_file(rollup_storage_e storage) {
  return directory(storage) + (storage == rollup_storage_e::lmdb ? "/data.mdb" : "/mdbx.dat");
}

rollup_shard_sp open_shard(rollup_storage_e storage) {
  const rollup_shard_key_c key(0, 60, static_cast<int32_t>(100 * SPAN));
  return rollup_shard_provider_c(storage, rollup_lmdb_default_flags())
      .provide(key, std::make_shared<rollup_shard_anchor_c>(directory(storage), rollup_shard_latency_t{}),
               1 << 20);
}

std::error_code put(const rollup_shard_sp &shard, uint64_t first_sid, uint64_t blocks, uint64_t step) {
  nntbs_block_t block;
  block_init(&block, 1);
  block_seal(&block);
  auto [error, txn] = shard->start_write_transaction();
  for (uint64_t sid = first_sid; sid < first_sid + METRICS && !error; sid += step)
    for (uint64_t i = 0; i < blocks && !error; ++i) error = txn->put(sid, i * SPAN, block);
  return error ? error : txn->commit_write();
}

// With blocks that were replaced and pages that were given back.
std::string make_file(rollup_storage_e storage) {
  std::filesystem::remove_all(directory(storage));
  {
    const rollup_shard_sp shard = open_shard(storage);
    if (put(shard, 1, BLOCKS, 1) || put(shard, 1, BLOCKS - 4, 2)) abort();
  }
  std::ifstream in(data_file(storage), std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void use(rollup_storage_e storage) {
  const rollup_shard_sp shard = open_shard(storage);
  {
    auto [error, txn] = shard->start_read_transaction();
    uint64_t sid, floor, count = 0;
    nntbs_block_t block;
    if (!error)
      for (error = txn->seek_to_first(&sid, &floor, &block); !error; error = txn->next(&sid, &floor, &block))
        if (++count > 10 * METRICS * BLOCKS) abort();
  }
  uint64_t ts;
  for (uint64_t sid = 1; sid <= METRICS; ++sid) shard->get_timestamp(sid, sid % 2 == 0, &ts);
  put(shard, 1, BLOCKS, 3);
  shard->delete_before(2, 5 * SPAN);
  if (shard->maintenance_mode() != db::ONLINE) return;
  for (std::error_code error; (error = put(shard, 50, 2, 1));)
    if (error != storage_errc_e::map_full) return;
  auto [error, txn] = shard->start_read_transaction();
  uint64_t floor = SPAN;
  if (error || txn->seek(50, &floor, nullptr) || floor != SPAN) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool silent = [] {
    for (const char *stream : {"error", "notice"}) krel_log_stream_switch(stream, false);
    atexit([] {
      std::filesystem::remove_all(std::filesystem::path(directory(rollup_storage_e::lmdb)).parent_path());
    });
    return true;
  }();
  static const std::string good[2] = {make_file(rollup_storage_e::lmdb), make_file(rollup_storage_e::mdbx)};
  if (!silent || size < 5) return 0;
  const auto storage = data[0] % 2 ? rollup_storage_e::mdbx : rollup_storage_e::lmdb;
  std::string bytes = good[data[0] % 2];
  for (size_t at = 1; at + 4 <= size; at += 4)
    bytes[(data[at] | data[at + 1] << 8 | data[at + 2] << 16) % bytes.size()] = static_cast<char>(data[at + 3]);
  std::ofstream(data_file(storage), std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  use(storage);
  return 0;
}
