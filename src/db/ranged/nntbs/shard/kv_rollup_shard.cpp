#include "db/ranged/nntbs/shard/kv_rollup_shard.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "db/ranged/nntbs/shard/kv_rollup_txn.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/io/file_helpers.h"

namespace db::ranged::nntbs {

namespace {

constexpr uint64_t GROWTH = 8;
constexpr double GROWN_SHARE = 0.8;
constexpr uint64_t SLOW_CHECK_MS = 1000;

// Failures that pass: the disk is full, the process has too many files open. The storage is as good as it was.
bool is_passing(int code) {
  switch (code) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case EAGAIN:
    case EACCES:
    case EROFS:
    case ENOLCK:
      return true;
    default:
      return false;
  }
}

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 || errno != ENOENT;
}

}  // namespace

kv_rollup_shard_c::kv_rollup_shard_c(const rollup_shard_key_c &key,
                                     std::shared_ptr<rollup_shard_anchor_c> anchor,
                                     std::unique_ptr<kv_env_c> env, uint64_t initial_map_size)
    : m_key(key), m_anchor(std::move(anchor)), m_env(std::move(env)), m_initial_map_size(initial_map_size) {}

kv_rollup_shard_c::~kv_rollup_shard_c() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  close_locked();
}

// ---- opening and closing

bool kv_rollup_shard_c::is_openable() const {
  constexpr shard_modes_c CLOSED =
      shard_modes_c(OFFLINE) | OFFLINE_CLOSED_PENDING_DELETE | OFFLINE_CORRUPTED | UNKNOWN_STATUS;
  return !CLOSED.has(maintenance_mode());
}

void kv_rollup_shard_c::refuse_storage(const std::string &fault) {
  krel_log(
      krel_error,
      "NNTBS shard %s is damaged and stays offline: %s. Its cells cannot be read and new ones for its time "
      "are dropped. Rebuild it from the peers, or stop the node, put the directory back from a backup or "
      "move it away to begin anew, and start it again\n",
      path().c_str(), fault.c_str());
  set_maintenance_mode(OFFLINE_CORRUPTED);
}

void kv_rollup_shard_c::check_storage() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  if (m_env->is_open() || !exists(path() + "/" + m_env->data_file())) return;
  std::error_code ignored;
  std::filesystem::remove_all(path() + "/creating", ignored);
  const std::string fault = m_env->check(path(), false);
  if (!fault.empty()) refuse_storage(fault);
}

kv_status_t kv_rollup_shard_c::open_env(const std::string &directory, uint64_t map_size) {
  const kv_status_t status = m_env->open(directory, map_size);
  if (!status)
    krel_log(krel_error, "%s [%zu, %zu, %d] %s - %d (%s) %s\n", "open", static_cast<size_t>(floor_s()),
             static_cast<size_t>(ceiling_s()), period_s(), status.call, status.code,
             m_env->error_text(status.code), path().c_str());
  return status;
}

std::error_code kv_rollup_shard_c::create_storage() {
  util::io::files_c &files = util::io::system_files();
  const std::string making = path() + "/creating";
  std::error_code error;
  std::filesystem::remove_all(making, error);
  if (!error) error = util::io::mkdir_for_file(making + "/");
  if (error) return storage_error(error.value());
  if (const kv_status_t status = open_env(making, m_initial_map_size); !status)
    return storage_error(status.code);
  const int synced = m_env->sync();
  m_env->close();
  if (synced != 0) return storage_error(synced);
  error = files.rename(making + "/" + m_env->data_file(), path() + "/" + m_env->data_file());
  if (!error) error = files.sync_directory(path());
  if (!error) error = files.sync_directory(util::io::parent_directory(path()));
  if (error) return storage_error(error.value());
  std::filesystem::remove_all(making, error);  // the lock file; what stays is removed the next time
  return {};
}

std::error_code kv_rollup_shard_c::open_locked() {
  if (m_env->is_open()) return {};
  if (!exists(path() + "/" + m_env->data_file())) {
    if (const std::error_code error = create_storage()) return error;
  } else {
    const uint64_t before_ms = krel_now_ms();
    const std::string fault = m_env->check(path(), true);
    if (!fault.empty()) {
      refuse_storage(fault);
      return storage_errc_e::corrupted;
    }
    if (const uint64_t took_ms = krel_now_ms() - before_ms; took_ms > SLOW_CHECK_MS)
      krel_log(krel_notice, "NNTBS shard %s: its check took %lu ms\n", path().c_str(), took_ms);
  }
  const kv_status_t status = open_env(path(), m_initial_map_size);
  if (!status && !is_passing(status.code)) refuse_storage("it cannot be opened");
  return status ? std::error_code() : storage_error(status.code);
}

void kv_rollup_shard_c::close_locked() {
  if (!m_env->is_open()) return;
  if (const int code = m_env->sync())
    krel_log(krel_error, "NNTBS shard %s: sync failed: %d (%s)\n", path().c_str(), code,
             m_env->error_text(code));
  m_env->close();
}

std::error_code kv_rollup_shard_c::open(shard_modes_c acceptable_modes) {
  if (!acceptable_modes.has(maintenance_mode())) return storage_errc_e::wrong_mode;
  const rollup_io_lock_c lock(m_anchor->_mutex);
  return open_locked();
}

std::error_code kv_rollup_shard_c::close_underlying_storage() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  close_locked();
  return {};
}

bool kv_rollup_shard_c::close_underlying_storage_if_unused() {
  if (_open_ref_cnt.load() != 0) return false;
  const rollup_io_lock_c lock(m_anchor->_mutex);
  close_locked();
  return true;
}

// After a commit whose last step failed the store takes no more transactions until it is opened anew.
void kv_rollup_shard_c::reopen() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  std::unique_ptr<kv_txn_c> probe;
  if (!m_env->is_open() || m_env->begin(false, &probe)) return;  // another thread was here
  m_env->close();
  open_locked();
}

std::error_code manageable_rollup_shard_c::delete_underlying_storage(const std::string &path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  return error;
}

std::error_code kv_rollup_shard_c::delete_underlying_storage() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  if (m_env->is_open()) m_env->close();
  return manageable_rollup_shard_c::delete_underlying_storage(path());
}

std::string kv_rollup_shard_c::prep_for_storage_deletion(std::chrono::milliseconds timeout) {
  if (!m_anchor->_mutex.try_lock_for(timeout)) return {};
  set_maintenance_mode(OFFLINE_CLOSED_PENDING_DELETE);
  if (m_env->is_open()) m_env->close();
  const auto [error, renamed] = util::io::rename_for_delete(path());
  if (error)
    krel_fatal("[%d %s] Unable to move shard %.*s out of the way\n", error.value(), error.message().c_str(),
               static_cast<int>(path().size()), path().data());
  m_anchor->_mutex.unlock();
  return renamed;
}

// ---- transactions

std::pair<std::error_code, std::unique_ptr<kv_rollup_txn_c>> kv_rollup_shard_c::start_transaction(
    bool writable) {
  for (bool reopened = false;;) {
    m_anchor->_mutex.lock_shared();
    kv_status_t status;
    if (m_env->is_open()) {
      std::unique_ptr<kv_txn_c> kv;
      status = m_env->begin(writable, &kv);
      if (status) return {std::error_code(), std::make_unique<kv_rollup_txn_c>(this, std::move(kv), writable)};
    }
    m_anchor->_mutex.unlock_shared();
    if (!status) {
      krel_log(krel_error, "NNTBS shard %s: %s: %d (%s)\n", path().c_str(), status.call, status.code,
               m_env->error_text(status.code));
      if (static_cast<storage_errc_e>(status.code) == storage_errc_e::corrupted)
        detected_corruption("start_transaction");
      if (static_cast<storage_errc_e>(status.code) != storage_errc_e::panic || reopened)
        return {storage_error(status.code), nullptr};
      reopen();
      reopened = true;
    } else {
      if (!is_openable()) return {storage_errc_e::wrong_mode, nullptr};
      const rollup_io_lock_c lock(m_anchor->_mutex);
      if (const std::error_code error = open_locked()) return {error, nullptr};
    }
  }
}

std::pair<std::error_code, rollup_shard_txn_up> kv_rollup_shard_c::start_read_transaction() {
  return start_transaction(false);
}

std::pair<std::error_code, rollup_shard_txn_up> kv_rollup_shard_c::start_write_transaction() {
  return start_transaction(true);
}

bool kv_rollup_shard_c::get_timestamp(uint64_t sid, bool first, uint64_t *ts) {
  auto [error, txn] = start_transaction(false);
  if (error) return false;
  const auto period = static_cast<uint64_t>(period_s());
  nntbs_block_t block;
  uint64_t found = sid, floor = first ? 0 : UINT64_MAX;
  error = txn->move(kv_move_e::at_or_after, &found, &floor, &block);
  if (!first && (!error || error == storage_errc_e::not_found))
    error = txn->move(error ? kv_move_e::last : kv_move_e::prev, &found, &floor, &block);
  for (; !error && found == sid;
       error = txn->move(first ? kv_move_e::next : kv_move_e::prev, &found, &floor, &block)) {
    if (!contains(floor) || floor != block_floor_of(floor, period)) continue;
    const size_t slot = first ? block_first_filled(block) : block_last_filled(block);
    if (slot == BLOCK_SLOTS) continue;
    *ts = floor + slot * period;
    return true;
  }
  return false;
}

// ---- growing

void kv_rollup_shard_c::resize(uint64_t gen) {
  {
    // What is still to be written goes to disk while others read on, so that the sync below is a short one.
    const rollup_io_shared_lock_c lock(m_anchor->_mutex);
    if (m_env->is_open() && _resize_gen.load() == gen) m_env->sync();
  }
  const rollup_io_lock_c lock(m_anchor->_mutex);
  if (!m_env->is_open()) return;
  const kv_env_c::map_t map = m_env->get_map();
  const double share = static_cast<double>(map.used_pages * map.page_size) / static_cast<double>(map.size);
  if (_resize_gen.load() > gen && share < GROWN_SHARE) {
    krel_log(krel_notice, "NNTBS %s Mapsize already increased\n", m_env->name());
    return;
  }
  const std::string file = path() + "/" + m_env->data_file();
  const uint64_t size = (map.size * GROWTH + map.page_size - 1) / map.page_size * map.page_size;
  const auto fail = [&](int code) {
    krel_fatal("NNTBS %s Mapsize increase from %zu to %lu was not successful: %d (%s)\n", m_env->name(),
               static_cast<size_t>(map.size), size, code, m_env->error_text(code));
  };
  if (const int code = m_env->sync()) fail(code);
  m_env->close();
  // The file only ever grows, by a hole: whatever the process dies of here, no byte of it is lost.
  struct stat st;
  std::error_code error;
  if (stat(file.c_str(), &st) != 0)
    error = {errno, std::generic_category()};
  else if (static_cast<uint64_t>(st.st_size) < size)
    error = util::io::resize_file(file, size);
  if (error)
    krel_fatal("Unable to resize file %.*s: %d %s\n", static_cast<int>(file.size()), file.data(), error.value(),
               error.message().c_str());
  if (const kv_status_t status = open_env(path(), size); !status) fail(status.code);
  _resize_gen.fetch_add(1);
  m_env->log_growth(path(), map.size >> 20, size >> 20);
}

// ---- modes and references

void kv_rollup_shard_c::detected_corruption(const char *where) {
  krel_log(krel_error, "%s: detected corruption in: %.*s\n", where, static_cast<int>(path().size()),
           path().data());
  refuse_storage("its pages contradict each other");
}

bool kv_rollup_shard_c::request_maintenance(shard_maintenance_mode_e mode) {
  for (shard_maintenance_mode_e present = maintenance_mode();;) {
    shard_maintenance_mode_e next = mode;
    if (mode == ONLINE && present == ONLINE) return true;
    if (mode == OFFLINE && present == ONLINE) {
      next = OFFLINE_PENDING;
    } else if (mode != ONLINE || present == OFFLINE_RECONSTITUTE) {
      krel_log(krel_error, "%s: invalid mode requested: %s -> %s\n", "request_maintenance",
               shard_maintenance_mode_to_string(present), shard_maintenance_mode_to_string(mode));
      return false;
    }
    if (_maintenance_mode.compare_exchange_strong(present, next)) return true;
  }
}

// The last user leaves: what was pending comes into force.
void kv_rollup_shard_c::finish_offline() {
  const rollup_io_lock_c lock(m_anchor->_mutex);
  if (m_references.load() != 2 || maintenance_mode() != OFFLINE_PENDING) return;
  close_locked();
  set_maintenance_mode(OFFLINE);
}

void kv_rollup_shard_c::release_ref() {
  for (int references = m_references.load();;) {
    if (references == 2 && maintenance_mode() == OFFLINE_PENDING) {
      finish_offline();
      references = m_references.load();
      if (references == 2 && maintenance_mode() == OFFLINE_PENDING) continue;
    }
    if (!m_references.compare_exchange_weak(references, references - 1)) continue;
    if (references == 1) delete this;
    return;
  }
}

void kv_rollup_shard_c::wait_for_maintenance_mode() {
  while (maintenance_mode() == OFFLINE_PENDING) {
    if (m_references.load() <= 2) {
      finish_offline();
      if (maintenance_mode() != OFFLINE_PENDING) return;
    }
    krel_log(krel_notice, "live reconstitute: shard %d_%lu-%lu is %s, waiting for offline..\n", period_s(),
             floor_s(), ceiling_s(), shard_maintenance_mode_to_string(maintenance_mode()));
    const struct timespec pause = {0, 100'000'000};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace db::ranged::nntbs
