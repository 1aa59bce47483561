#include "db/ranged/nntbs/shard/kv_rollup_txn.h"

#include <algorithm>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/velmar_stats.h"

namespace db::ranged::nntbs {

namespace {

uint64_t monotonic_us() {
  return krel_gethrtime() / 1000;
}

void count_bad_key() {
  static stats_handle_t *const handle = velmar_stats_get_handle("db.nntbs.bad_keys", STATS_TYPE_COUNTER);
  stats_add64(handle, 1);
}

}  // namespace

kv_rollup_txn_c::kv_rollup_txn_c(kv_rollup_shard_c *shard, std::unique_ptr<kv_txn_c> kv, bool writable)
    : m_shard_ref(shard),
      m_shard(shard),
      m_kv(std::move(kv)),
      m_resize_gen(shard->get_resize_gen()),
      m_start_us(monotonic_us()),
      m_writable(writable),
      _state(writable ? shard_txn_state_e::writable : shard_txn_state_e::readable) {
  m_shard->_open_ref_cnt.fetch_add(1);
}

kv_rollup_txn_c::~kv_rollup_txn_c() {
  if (_state != shard_txn_state_e::done) end();
}

void kv_rollup_txn_c::end() {
  m_kv.reset();
  _state = shard_txn_state_e::done;
  m_shard->_open_ref_cnt.fetch_sub(1);
  m_shard->m_anchor->_mutex.unlock_shared();
  const rollup_shard_latency_t &latency = m_shard->m_anchor->latency;
  stats_set_hist_intscale(m_writable ? latency.put : latency.get,
                          static_cast<int64_t>(monotonic_us() - m_start_us), -6, 1);
  if (m_writable) stats_add64(latency.put_transactions, 1);
}

std::error_code kv_rollup_txn_c::failed(const char *where, int code) {
  const auto errc = static_cast<storage_errc_e>(code);
  if (errc == storage_errc_e::corrupted || errc == storage_errc_e::page_notfound) {
    m_shard->detected_corruption(where);
    end();
    return storage_errc_e::corrupted;
  }
  return storage_error(code);
}

std::error_code kv_rollup_txn_c::move(kv_move_e how, uint64_t *sid, uint64_t *block_floor,
                                      nntbs_block_t *block) {
  krel_assert(_state == shard_txn_state_e::readable || _state == shard_txn_state_e::writable);
  const block_key_t from = how == kv_move_e::at_or_after ? make_block_key(*sid, *block_floor) : block_key_t{};
  const bool back = how == kv_move_e::last || how == kv_move_e::prev;
  kv_bytes_t key(from), value;
  for (;; how = back ? kv_move_e::prev : kv_move_e::next) {
    if (const int code = m_kv->move(how, &key, &value)) return failed("cursor_get", code);
    if (key.size() == BLOCK_KEY_SIZE) break;
    count_bad_key();
  }
  if (value.size() > sizeof(nntbs_block_t))
    return failed("cursor_get", static_cast<int>(storage_errc_e::corrupted));
  parse_block_key(key.data(), sid, block_floor);
  if (block) {
    auto *const to = reinterpret_cast<uint8_t *>(block);
    std::copy(value.begin(), value.end(), to);
    std::fill(to + value.size(), to + sizeof *block, uint8_t{0});
  }
  return {};
}

std::error_code kv_rollup_txn_c::seek(uint64_t sid, uint64_t *block_floor, nntbs_block_t *block) {
  uint64_t found = sid;
  const std::error_code error = move(kv_move_e::at_or_after, &found, block_floor, block);
  if (!error && found != sid) return storage_errc_e::not_found;
  return error;
}

// The transaction is over and the shard larger.
std::error_code kv_rollup_txn_c::grow(int code) {
  if (_state != shard_txn_state_e::done) end();
  m_shard->resize(m_resize_gen);
  return storage_error(code);
}

std::error_code kv_rollup_txn_c::put(uint64_t sid, uint64_t block_floor, const nntbs_block_t &block) {
  krel_assert(_state == shard_txn_state_e::writable);
  const block_key_t key = make_block_key(sid, block_floor);
  const int code = m_kv->put(key, {reinterpret_cast<const uint8_t *>(&block), sizeof block});
  if (code == 0) return {};
  const std::string &path = m_shard->path();
  switch (static_cast<storage_errc_e>(code)) {
    case storage_errc_e::map_full:
      krel_log(
          krel_notice,
          "NNTBS shard %lu:%d timeshard::put sid: %lu, block_floor: %lu triggered resize, shard path:%.*s\n",
          m_shard->floor_s(), m_shard->period_s(), sid, block_floor, static_cast<int>(path.size()),
          path.data());
      return grow(code);
    case storage_errc_e::txn_full:
    case storage_errc_e::bad_txn:
      return failed("put", static_cast<int>(storage_errc_e::corrupted));
    default:
      return failed("put", code);
  }
}

std::error_code kv_rollup_txn_c::erase() {
  krel_assert(_state == shard_txn_state_e::writable);
  const int code = m_kv->erase();
  if (static_cast<storage_errc_e>(code) == storage_errc_e::map_full) return grow(code);
  return code == 0 ? std::error_code() : failed("cursor_del", code);
}

void kv_rollup_txn_c::stop_read() {
  krel_assert(_state == shard_txn_state_e::readable);
  end();
}

void kv_rollup_txn_c::abort_write() {
  krel_assert(_state == shard_txn_state_e::writable || _state == shard_txn_state_e::done);
  if (_state == shard_txn_state_e::writable) end();
}

std::error_code kv_rollup_txn_c::commit_write() {
  krel_assert(_state == shard_txn_state_e::writable);
  const int code = m_kv->commit();
  end();
  if (code == 0) return {};
  if (static_cast<storage_errc_e>(code) == storage_errc_e::map_full) return grow(code);
  if (static_cast<storage_errc_e>(code) == storage_errc_e::corrupted) m_shard->detected_corruption("commit");
  return storage_error(code);
}

}  // namespace db::ranged::nntbs
