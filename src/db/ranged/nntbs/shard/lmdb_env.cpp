// LMDB behind the engine interface.

#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "db/ranged/nntbs/shard/btree_file.h"
#include "db/ranged/nntbs/shard/kv_engine.h"
#include "db/ranged/nntbs/shard/nntbs_block.h"
#include "platform/krel/base/krel_log.h"

namespace db::ranged::nntbs {

const uint32_t LMDB_DEFAULT_FLAGS = MDB_NOSYNC | MDB_NOTLS | MDB_NORDAHEAD | MDB_NOMEMINIT;

namespace {

constexpr const char *LOCK_FILE = "lock.mdb";
constexpr unsigned MAX_TABLES = 5, MAX_READERS = 1024;
constexpr off_t LOCK_FILE_SIZE = 72 * 1024;  // room for all readers
constexpr mode_t PERMISSIONS = 0644;

MDB_val to_val(kv_bytes_t bytes) {
  return {bytes.size(), const_cast<uint8_t *>(bytes.data())};
}
kv_bytes_t from_val(const MDB_val &val) {
  return {static_cast<const uint8_t *>(val.mv_data), val.mv_size};
}

class lmdb_txn_c final : public kv_txn_c {
 public:
  lmdb_txn_c(MDB_txn *txn, MDB_cursor *cursor, size_t page_size)
      : m_txn(txn), m_cursor(cursor), m_page_size(page_size) {}
  ~lmdb_txn_c() override {
    mdb_cursor_close(m_cursor);
    if (m_txn) mdb_txn_abort(m_txn);
  }

  int move(kv_move_e how, kv_bytes_t *key, kv_bytes_t *value) override {
    MDB_val k{}, v{};
    if (how == kv_move_e::at_or_after) k = to_val(*key);
    const int rc = mdb_cursor_get(m_cursor, &k, &v, operation(how));
    if (rc != 0) return rc;
    *key = from_val(k);
    *value = from_val(v);
    return 0;
  }
  int put(kv_bytes_t key, kv_bytes_t value) override {
    MDB_val k = to_val(key), v{};
    const int found = mdb_cursor_get(m_cursor, &k, &v, MDB_SET);
    if (found != 0 && found != MDB_NOTFOUND) return found;
    if (found == 0 && !may_be_freed(v)) return MDB_CORRUPTED;
    k = to_val(key);
    v = to_val(value);
    return mdb_cursor_put(m_cursor, &k, &v, 0);
  }
  int erase() override {
    MDB_val k{}, v{};
    if (const int rc = mdb_cursor_get(m_cursor, &k, &v, MDB_GET_CURRENT)) return rc;
    return may_be_freed(v) ? mdb_cursor_del(m_cursor, 0) : MDB_CORRUPTED;
  }
  int commit() override {
    mdb_cursor_close(m_cursor);
    m_cursor = nullptr;
    MDB_txn *const txn = m_txn;
    m_txn = nullptr;
    return mdb_txn_commit(txn);
  }

 private:
  static MDB_cursor_op operation(kv_move_e how) {
    switch (how) {
      case kv_move_e::first:
        return MDB_FIRST;
      case kv_move_e::last:
        return MDB_LAST;
      case kv_move_e::next:
        return MDB_NEXT;
      case kv_move_e::prev:
        return MDB_PREV;
      default:
        return MDB_SET_RANGE;
    }
  }
  bool may_be_freed(const MDB_val &v) const {
    return value_may_be_freed(LMDB_FORMAT, m_page_size, BLOCK_KEY_SIZE, v.mv_data, v.mv_size);
  }

  MDB_txn *m_txn;
  MDB_cursor *m_cursor;
  const size_t m_page_size;
};

class lmdb_env_c final : public kv_env_c {
 public:
  explicit lmdb_env_c(uint32_t flags) : m_flags(flags | MDB_NOTLS) {}
  ~lmdb_env_c() override { close(); }

  const char *name() const override { return "LMDB"; }
  const char *data_file() const override { return LMDB_DATA_FILE; }
  const char *error_text(int code) const override { return mdb_strerror(code); }
  std::string check(const std::string &directory, bool whole) const override {
    return check_btree_file(directory + "/" + LMDB_DATA_FILE, LMDB_FORMAT, whole);
  }
  kv_status_t open(const std::string &directory, uint64_t map_size) override;
  bool is_open() const override { return m_env != nullptr; }
  void close() override {
    if (m_env) mdb_env_close(m_env);
    m_env = nullptr;
  }
  kv_status_t begin(bool writable, std::unique_ptr<kv_txn_c> *out) override {
    MDB_txn *txn = nullptr;
    MDB_cursor *cursor = nullptr;
    if (const int rc = mdb_txn_begin(m_env, nullptr, writable ? 0 : MDB_RDONLY, &txn))
      return {rc, "mdb_txn_begin"};
    if (const int rc = mdb_cursor_open(txn, m_table, &cursor)) {
      mdb_txn_abort(txn);
      return {rc, "mdb_cursor_open"};
    }
    *out = std::make_unique<lmdb_txn_c>(txn, cursor, m_page_size);
    return {};
  }
  map_t get_map() const override {
    MDB_envinfo info{};
    mdb_env_info(m_env, &info);
    return {info.me_mapsize, info.me_last_pgno + 1, m_page_size};
  }
  int sync() override { return mdb_env_sync(m_env, 1); }
  void log_growth(const std::string &path, uint64_t old_mib, uint64_t new_mib) const override {
    krel_log(krel_notice, "NNTBS LMDB Mapsize increased for %.*s. old: %lu MiB, new: %lu MiB\n",
             static_cast<int>(path.size()), path.data(), old_mib, new_mib);
  }

 private:
  kv_status_t open_steps(const std::string &directory, uint64_t map_size);

  const uint32_t m_flags;
  MDB_env *m_env = nullptr;
  MDB_dbi m_table = 0;
  size_t m_page_size = 0;
};

[[noreturn]] void on_assert(MDB_env *, const char *text) {
  krel_fatal("LMDB: %s\n", text);
}

kv_status_t lmdb_env_c::open_steps(const std::string &directory, uint64_t map_size) {
  if (const int rc = mdb_env_create(&m_env)) return {rc, "mdb_env_create"};
  mdb_env_set_assert(m_env, on_assert);
  if (const int rc = mdb_env_set_mapsize(m_env, map_size)) return {rc, "mdb_env_set_mapsize"};
  if (const int rc = mdb_env_set_maxdbs(m_env, MAX_TABLES)) return {rc, "mdb_env_set_maxdbs"};
  if (const int rc = mdb_env_set_maxreaders(m_env, MAX_READERS)) return {rc, "mdb_env_set_maxreaders"};
  if (const int rc = reserve_file(directory + "/" + LOCK_FILE, LOCK_FILE_SIZE)) return {rc, "posix_fallocate"};
  if (const int rc = mdb_env_open(m_env, directory.c_str(), m_flags, PERMISSIONS)) return {rc, "mdb_env_open"};
  int dead = 0;
  mdb_reader_check(m_env, &dead);
  MDB_stat st{};
  mdb_env_stat(m_env, &st);
  m_page_size = st.ms_psize;
  MDB_txn *txn = nullptr;
  if (const int rc = mdb_txn_begin(m_env, nullptr, 0, &txn)) return {rc, "mdb_txn_begin"};
  if (const int rc = mdb_dbi_open(txn, "data", MDB_CREATE, &m_table)) {
    mdb_txn_abort(txn);
    return {rc, "mdb_dbi_open"};
  }
  if (const int rc = mdb_txn_commit(txn)) return {rc, "mdb_txn_commit"};
  return {};
}

kv_status_t lmdb_env_c::open(const std::string &directory, uint64_t map_size) {
  // A map that is smaller than what was grown would have to grow again with the first write.
  struct stat st;
  if (stat((directory + "/" + LMDB_DATA_FILE).c_str(), &st) == 0)
    map_size = std::max(map_size, static_cast<uint64_t>(st.st_size));
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const kv_status_t status = open_steps(directory, (map_size + page - 1) / page * page);
  if (!status) close();
  return status;
}

}  // namespace

std::unique_ptr<kv_env_c> make_lmdb_env(uint32_t flags) {
  return std::make_unique<lmdb_env_c>(flags);
}

}  // namespace db::ranged::nntbs
