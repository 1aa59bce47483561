// libmdbx behind the engine interface.

#include <mdbx.h>

#include "db/ranged/nntbs/shard/btree_file.h"
#include "db/ranged/nntbs/shard/kv_engine.h"
#include "db/ranged/nntbs/shard/nntbs_block.h"
#include "platform/krel/base/krel_log.h"

namespace db::ranged::nntbs {

namespace {

constexpr const char *LOCK_FILE = "mdbx.lck";
constexpr unsigned MAX_TABLES = 5, MAX_READERS = 1024;
constexpr off_t LOCK_FILE_SIZE = 72 * 1024;  // room for all readers
constexpr mdbx_mode_t PERMISSIONS = 0644;
// NOTLS: reads may change threads. The map then never moves while the environment is open.
constexpr auto FLAGS = static_cast<MDBX_env_flags_t>(MDBX_NOMEMINIT | MDBX_NOTLS);

MDBX_val to_val(kv_bytes_t bytes) {
  return {const_cast<uint8_t *>(bytes.data()), bytes.size()};
}
kv_bytes_t from_val(const MDBX_val &val) {
  return {static_cast<const uint8_t *>(val.iov_base), val.iov_len};
}

class mdbx_txn_c final : public kv_txn_c {
 public:
  mdbx_txn_c(MDBX_txn *txn, MDBX_cursor *cursor, size_t page_size)
      : m_txn(txn), m_cursor(cursor), m_page_size(page_size) {}
  ~mdbx_txn_c() override {
    if (m_cursor) mdbx_cursor_close(m_cursor);
    if (m_txn) mdbx_txn_abort(m_txn);
  }

  int move(kv_move_e how, kv_bytes_t *key, kv_bytes_t *value) override {
    MDBX_val k{}, v{};
    if (how == kv_move_e::at_or_after) k = to_val(*key);
    const int rc = mdbx_cursor_get(m_cursor, &k, &v, operation(how));
    if (rc != MDBX_SUCCESS) return rc == MDBX_ENODATA ? MDBX_NOTFOUND : rc;
    *key = from_val(k);
    *value = from_val(v);
    return 0;
  }
  int put(kv_bytes_t key, kv_bytes_t value) override {
    MDBX_val k = to_val(key), v{};
    const int found = mdbx_cursor_get(m_cursor, &k, &v, MDBX_SET);
    if (found != MDBX_SUCCESS && found != MDBX_NOTFOUND) return found;
    if (found == MDBX_SUCCESS && !may_be_freed(v)) return MDBX_CORRUPTED;
    k = to_val(key);
    v = to_val(value);
    return mdbx_cursor_put(m_cursor, &k, &v, MDBX_UPSERT);
  }
  int erase() override {
    MDBX_val k{}, v{};
    if (const int rc = mdbx_cursor_get(m_cursor, &k, &v, MDBX_GET_CURRENT)) return rc;
    return may_be_freed(v) ? mdbx_cursor_del(m_cursor, MDBX_CURRENT) : MDBX_CORRUPTED;
  }
  int commit() override {
    mdbx_cursor_close(m_cursor);
    m_cursor = nullptr;
    MDBX_txn *const txn = m_txn;
    m_txn = nullptr;
    return mdbx_txn_commit(txn);
  }

 private:
  static MDBX_cursor_op operation(kv_move_e how) {
    switch (how) {
      case kv_move_e::first:
        return MDBX_FIRST;
      case kv_move_e::last:
        return MDBX_LAST;
      case kv_move_e::next:
        return MDBX_NEXT;
      case kv_move_e::prev:
        return MDBX_PREV;
      default:
        return MDBX_SET_RANGE;
    }
  }
  bool may_be_freed(const MDBX_val &v) const {
    return value_may_be_freed(MDBX_FORMAT, m_page_size, BLOCK_KEY_SIZE, v.iov_base, v.iov_len);
  }

  MDBX_txn *m_txn;
  MDBX_cursor *m_cursor;
  const size_t m_page_size;
};

class mdbx_env_c final : public kv_env_c {
 public:
  ~mdbx_env_c() override { close(); }

  const char *name() const override { return "MDBX"; }
  const char *data_file() const override { return MDBX_DATA_FILE; }
  const char *error_text(int code) const override { return mdbx_strerror(code); }
  std::string check(const std::string &directory, bool whole) const override {
    return check_btree_file(directory + "/" + MDBX_DATA_FILE, MDBX_FORMAT, whole);
  }
  kv_status_t open(const std::string &directory, uint64_t map_size) override {
    const kv_status_t status = open_steps(directory, map_size);
    if (!status) close();
    return status;
  }
  bool is_open() const override { return m_env != nullptr; }
  void close() override {
    if (m_env) mdbx_env_close_ex(m_env, true);  // what was committed has been synced
    m_env = nullptr;
  }
  kv_status_t begin(bool writable, std::unique_ptr<kv_txn_c> *out) override {
    MDBX_txn *txn = nullptr;
    MDBX_cursor *cursor = nullptr;
    if (const int rc = mdbx_txn_begin(m_env, nullptr, writable ? MDBX_TXN_READWRITE : MDBX_TXN_RDONLY, &txn))
      return {rc, "mdbx_txn_begin"};
    if (const int rc = mdbx_cursor_open(txn, m_table, &cursor)) {
      mdbx_txn_abort(txn);
      return {rc, "mdbx_cursor_open"};
    }
    *out = std::make_unique<mdbx_txn_c>(txn, cursor, m_page_size);
    return {};
  }
  map_t get_map() const override {
    MDBX_envinfo info{};
    mdbx_env_info_ex(m_env, nullptr, &info, sizeof info);
    return {info.mi_geo.upper, info.mi_last_pgno + 1, m_page_size};
  }
  int sync() override {
    const int rc = mdbx_env_sync_ex(m_env, true, false);
    return rc == MDBX_RESULT_TRUE ? 0 : rc;  // there was nothing to write
  }
  void log_growth(const std::string &path, uint64_t old_mib, uint64_t new_mib) const override {
    krel_ex_log(krel_notice, "{}: Map size increased for {}. old: {} MiB, new: {} MiB\n", "resize", path,
                old_mib, new_mib);
  }

 private:
  kv_status_t open_steps(const std::string &directory, uint64_t map_size);

  MDBX_env *m_env = nullptr;
  MDBX_dbi m_table = 0;
  size_t m_page_size = 0;
};

kv_status_t mdbx_env_c::open_steps(const std::string &directory, uint64_t map_size) {
  if (const int rc = mdbx_env_create(&m_env)) return {rc, "mdbx_env_create"};
  const auto size = static_cast<intptr_t>(map_size);
  if (map_size != 0) {
    if (const int rc = mdbx_env_set_geometry(m_env, size, size, size, -1, -1, -1))
      return {rc, "mdbx_env_set_geometry"};
  }
  if (const int rc = mdbx_env_set_option(m_env, MDBX_opt_max_db, MAX_TABLES))
    return {rc, "mdbx_env_set_option"};
  if (const int rc = mdbx_env_set_option(m_env, MDBX_opt_max_readers, MAX_READERS))
    return {rc, "mdbx_env_set_option"};
  if (const int rc = reserve_file(directory + "/" + LOCK_FILE, LOCK_FILE_SIZE)) return {rc, "posix_fallocate"};
  // A head that the store passes over would take it back to an older state: it is to be the one looked at.
  const uint64_t txnid = read_mdbx_txnid(directory + "/" + MDBX_DATA_FILE);
  if (const int rc = mdbx_env_open(m_env, directory.c_str(), FLAGS, PERMISSIONS)) return {rc, "mdbx_env_open"};
  MDBX_envinfo info{};
  mdbx_env_info_ex(m_env, nullptr, &info, sizeof info);
  m_page_size = info.mi_dxb_pagesize;
  if (info.mi_recent_txnid < txnid) return {MDBX_CORRUPTED, "mdbx_env_open"};
  MDBX_txn *txn = nullptr;
  if (const int rc = mdbx_txn_begin(m_env, nullptr, MDBX_TXN_READWRITE, &txn)) return {rc, "mdbx_txn_begin"};
  if (const int rc = mdbx_dbi_open(txn, "data", MDBX_CREATE, &m_table)) {
    mdbx_txn_abort(txn);
    return {rc, "mdbx_dbi_open"};
  }
  if (const int rc = mdbx_txn_commit(txn)) return {rc, "mdbx_txn_commit"};
  return {};
}

}  // namespace

std::unique_ptr<kv_env_c> make_mdbx_env() {
  return std::make_unique<mdbx_env_c>();
}

}  // namespace db::ranged::nntbs
