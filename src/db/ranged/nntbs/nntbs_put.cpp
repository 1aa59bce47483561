// Writing a range of cells: block by block, each read and put once.

#include <algorithm>

#include "db/ranged/nntbs/nntbs_hooks.h"
#include "db/ranged/nntbs/nntbs_storage.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace db::ranged::nntbs {

namespace {

// A transaction's pages are held in memory, and nobody else writes to the shard before it ends.
constexpr size_t MAX_BLOCKS_IN_TXN = 1024;

class range_writer_c {
 public:
  range_writer_c(uint64_t sid, uint64_t offset_s, unsigned period, std::span<const nnt_multitype> cells,
                 absent_cells_e absent)
      : m_sid(sid),
        m_offset(offset_s),
        m_period(period),
        m_cells(cells),
        m_keep_absent(absent == absent_cells_e::keep) {}

  // A shard that grew on the way ends the transaction: then all is written again. What an earlier
  // transaction has committed is the same cells.
  std::error_code write() {
    std::error_code error;
    do {
      m_txn.reset();
      m_shard.reset();
      error = write_once();
    } while (error == storage_errc_e::map_full);
    m_txn.reset();
    return error;
  }

 private:
  std::error_code write_once();
  std::error_code move_to(uint64_t floor);
  std::error_code write_run(uint64_t floor, size_t slot, std::span<const nnt_multitype> run);
  std::error_code load(uint64_t floor, bool replaced_whole, nntbs_block_t *block, bool *is_new);
  std::error_code commit();

  const uint64_t m_sid, m_offset, m_period;
  const std::span<const nnt_multitype> m_cells;
  const bool m_keep_absent;
  rollup_shard_sp m_shard;
  rollup_shard_txn_up m_txn;
  size_t m_blocks_in_txn = 0;
  int m_shards = 0;  // asked for in this pass
};

bool is_absent(const nnt_multitype &cell) {
  return cell.type == NNT_TYPE_ABSENT;
}

std::error_code range_writer_c::commit() {
  if (!m_txn) return {};
  const std::error_code error = m_txn->commit_write();
  m_txn.reset();
  if (error && error != storage_errc_e::map_full)
    krel_log(krel_error, "%s: Error committing txn: %d (%s)\n", "nntbs_put_range", error.value(),
             error.message().c_str());
  return error;
}

// Opens the shard that holds the block, and a transaction.
std::error_code range_writer_c::move_to(uint64_t floor) {
  const bool elsewhere = m_shard && !m_shard->contains(floor);
  if (elsewhere || m_blocks_in_txn >= MAX_BLOCKS_IN_TXN) {
    if (const std::error_code error = commit()) return error;
    m_blocks_in_txn = 0;
  }
  if (elsewhere) {
    krel_log(krel_debug, "%s: put_range moving to new timeshard: index: %lu, database_floor: %lu\n",
             "nntbs_put_range", floor / m_period, floor);
    m_shard.reset();
  }
  if (!m_shard) {
    ++m_shards;
    auto [error, shard] = storage().shard_factory->open_or_create(floor, static_cast<int32_t>(m_period));
    if (error) return error;
    m_shard = std::move(shard);
  }
  if (!m_txn) {
    auto [error, txn] = m_shard->start_write_transaction();
    if (error) return error;
    m_txn = std::move(txn);
  }
  return {};
}

// The stored block as a working copy, or a new one.
std::error_code range_writer_c::load(uint64_t floor, bool replaced_whole, nntbs_block_t *block, bool *is_new) {
  uint64_t found = floor;
  const std::error_code error = m_txn->seek(m_sid, &found, block);
  if (error && error != storage_errc_e::not_found) return error;
  *is_new = error || found != floor;
  if (!*is_new && !replaced_whole && !block_is_sound(*block)) {
    // Its cells cannot be read any more. Kept, they would get a valid checksum with the next put.
    krel_log(krel_error,
             "NNTBS -- damaged block at offset: %lu and surrogate: %lu is written anew, shard path: %s\n",
             floor, m_sid, m_shard->path().c_str());
    *is_new = true;
  }
  if (*is_new) block_init(block, krel_now_us());
  return {};
}

std::error_code range_writer_c::write_run(uint64_t floor, size_t slot, std::span<const nnt_multitype> run) {
  const bool all_absent = std::all_of(run.begin(), run.end(), is_absent);
  if (all_absent && m_keep_absent) return {};
  if (const std::error_code error = move_to(floor)) return error;
  const bool replaced_whole =
      run.size() == BLOCK_SLOTS && (!m_keep_absent || std::none_of(run.begin(), run.end(), is_absent));
  nntbs_block_t block;
  bool is_new = false;
  std::error_code error = load(floor, replaced_whole, &block, &is_new);
  if (error) return error;
  if (is_new && all_absent) return {};  // nothing to clear
  for (const nnt_multitype &cell : run) {
    if (!m_keep_absent || !is_absent(cell)) block_set_cell(&block, slot, cell);
    ++slot;
  }
  block.version = BLOCK_VERSION;
  block_seal(&block);
  ++m_blocks_in_txn;
  error = m_txn->put(m_sid, floor, block);
  if (error && error != storage_errc_e::map_full)
    krel_log(krel_error, "%s: Error putting to cursor: %d (%s), shard path: %.*s\n", "nntbs_put_range",
             error.value(), error.message().c_str(), static_cast<int>(m_shard->path().size()),
             m_shard->path().data());
  return error;
}

std::error_code range_writer_c::write_once() {
  m_blocks_in_txn = 0;
  m_shards = 0;
  for (size_t i = 0; i < m_cells.size();) {
    const uint64_t t = m_offset + i * m_period;
    const uint64_t floor = block_floor_of(t, m_period);
    const size_t slot = block_slot_of(t, m_period);
    const size_t count = std::min(BLOCK_SLOTS - slot, m_cells.size() - i);
    const std::error_code error = write_run(floor, slot, m_cells.subspan(i, count));
    if (error && error != storage_errc_e::floor_too_low) {
      // A shard that is offline is being rebuilt from the peers, which have these cells, too.
      if (error == storage_errc_e::wrong_mode && m_shards <= 1) return {};
      return error;
    }
    i += count;
  }
  return commit();
}

}  // namespace

}  // namespace db::ranged::nntbs

using namespace db::ranged::nntbs;

int nntbs_put_range(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype *v,
                    size_t entries, unsigned period, absent_cells_e absent) {
  if (!metric_locator) {
    krel_log(krel_error, "NULL metric_locator, cannot store this NNTBS range\n");
    return -1;
  }
  const std::span<const nnt_multitype> cells(v, entries);
  const uint64_t offset_s = offset_ms / 1000;
  if (period == 0 || entries > (UINT64_MAX / 2 - offset_s) / period ||
      std::any_of(cells.begin(), cells.end(), [](const auto &c) { return c.type > NNT_TYPE_DOUBLE; })) {
    krel_log(krel_error, "nntbs_put_range: cells that cannot be stored: offset %lu s, %zu of period %u\n",
             offset_s, entries, period);
    return -1;
  }
  if (put_nntbs_range_hook_invoke(metric_locator, offset_s, period, entries, v) == NNTBS_HOOK_ABORT) {
    krel_log(krel_error, "nntbs_put_range: hook aborted operation\n");
    return -1;
  }
  if (absent == absent_cells_e::keep && std::all_of(cells.begin(), cells.end(), is_absent)) return 0;
  const uint64_t sid = find_or_create_surrogate(metric_locator, offset_ms);
  if (sid == db::surrogate::ID_NONE) return -1;
  storage().put_calls.fetch_add(entries, std::memory_order_relaxed);
  return range_writer_c(sid, offset_s, period, cells, absent).write().value();
}

int nntbs_put(uint64_t offset_ms, const metric_locator_sp &metric_locator, const nnt_multitype &v,
              unsigned period) {
  return nntbs_put_range(offset_ms, metric_locator, &v, 1, period);
}
