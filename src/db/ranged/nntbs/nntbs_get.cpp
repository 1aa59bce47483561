// Reading a range of cells: one open transaction and one copy of a block at a time.

#include <algorithm>

#include "db/ranged/nntbs/nntbs_storage.h"
#include "platform/krel/base/krel_log.h"

namespace db::ranged::nntbs {

namespace {

class range_reader_c {
 public:
  range_reader_c(uint64_t sid, uint64_t offset_s, unsigned period, std::span<nnt_multitype> cells)
      : m_sid(sid), m_offset(offset_s), m_period(period), m_cells(cells) {}

  // Empty, or what stopped it; the cells before that are good.
  std::string read();

 private:
  bool move_to(uint64_t floor, std::string *error);
  bool load(uint64_t floor, std::string *error);

  const uint64_t m_sid, m_offset, m_period;
  const std::span<nnt_multitype> m_cells;
  rollup_shard_sp m_shard;
  rollup_shard_txn_up m_txn;
  nntbs_block_t m_block;
};

std::string storage_error_text(const std::error_code &error, const rollup_shard_sp &shard) {
  return fmt::format("{}: {} ({})\n", shard->path(), error.message(), error.value());
}

// A transaction on the shard that holds the block; false when there is none to read, with *error set when that
// is for a reason that passes.
bool range_reader_c::move_to(uint64_t floor, std::string *error) {
  if (m_shard && !m_shard->contains(floor)) {
    m_txn.reset();
    m_shard.reset();
  }
  if (!m_shard) {
    auto [code, shard] = storage().shard_factory->open(floor, static_cast<int32_t>(m_period));
    if (code || !shard) return false;
    m_shard = std::move(shard);
  }
  if (!m_txn) {
    auto [code, txn] = m_shard->start_read_transaction();
    if (code) {
      // a shard that is damaged is offline from now on, as if it were not there
      if (m_shard->maintenance_mode() == ONLINE) *error = storage_error_text(code, m_shard);
      return false;
    }
    m_txn = std::move(txn);
  }
  return true;
}

bool range_reader_c::load(uint64_t floor, std::string *error) {
  if (!move_to(floor, error)) return false;
  uint64_t found = floor;
  const std::error_code code = m_txn->seek(m_sid, &found, &m_block);
  if (code == storage_errc_e::not_found || (!code && found != floor)) {
    krel_log(krel_debug, "NNTBS -- block not found: floor: %lu, sid: %lu\n", floor, m_sid);
    return false;
  }
  if (code) {
    m_txn.reset();
    *error = storage_error_text(code, m_shard);
    return false;
  }
  if (!block_is_sound(m_block)) {
    *error = m_block.version == BLOCK_VERSION
                 ? fmt::format("CRC check failed for block at offset: {} and surrogate: {}\n", floor, m_sid)
                 : fmt::format("block of unknown version {} at offset: {} and surrogate: {}\n", m_block.version,
                               floor, m_sid);
    return false;
  }
  return true;
}

std::string range_reader_c::read() {
  std::string error;
  for (size_t i = 0; i < m_cells.size();) {
    const uint64_t t = m_offset + i * m_period;
    const uint64_t floor = block_floor_of(t, m_period);
    const size_t slot = block_slot_of(t, m_period);
    const size_t count = std::min(BLOCK_SLOTS - slot, m_cells.size() - i);
    if (load(floor, &error)) {
      for (size_t n = 0; n < count; ++n) block_get_cell(m_block, slot + n, &m_cells[i + n]);
    } else if (!error.empty()) {
      break;
    }
    i += count;
  }
  return error;
}

}  // namespace

}  // namespace db::ranged::nntbs

using namespace db::ranged::nntbs;

size_t nntbs_get_range(uint64_t offset, const metric_locator_sp &metric_locator, unsigned period, int64_t count,
                       nnt_multitype *v, uint64_t *original_epoch, uint64_t *original_apocalypse,
                       std::string *error) {
  if (count < 1 || period == 0) return 0;
  const auto wanted = static_cast<size_t>(count);
  storage().get_calls.fetch_add(wanted, std::memory_order_relaxed);
  const uint64_t sid = find_surrogate(metric_locator);
  if (sid == db::surrogate::ID_NONE) return 0;
  if (original_epoch || original_apocalypse)
    nntbs_get_metadata(metric_locator, period, original_epoch, original_apocalypse);
  if (offset >= UINT64_MAX / 2) return wanted;  // no cell can lie there
  const size_t representable = std::min<uint64_t>(wanted, (UINT64_MAX / 2 - offset) / period + 1);
  std::string text = range_reader_c(sid, offset, period, {v, representable}).read();
  if (!text.empty()) {
    krel_log(krel_error, "nntbs_get_range: %s", text.c_str());
    if (error) *error = std::move(text);
  }
  return wanted;
}
