#include <rocksdb/c.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "db/raw/nom/nom_type.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"
#include "util/io/files.h"

namespace velmar_db_raw_nom {

namespace fs = std::filesystem;
using velmar_db_admin::rocksdb_error_c;

namespace {

constexpr char TEMPORARY_SUFFIX[] = "_INITIALIZING_TEMPORARY_ROCKSDB_DIRECTORY_";
constexpr char COMPARATOR_NAME[] = "leveldb.BytewiseComparator";

uint64_t load_be64(const char *p) {
  uint64_t word;
  memcpy(&word, p, sizeof word);
  return __builtin_bswap64(word);
}
uint32_t load_be32(const char *p) {
  uint32_t word;
  memcpy(&word, p, sizeof word);
  return __builtin_bswap32(word);
}

int nomdb_rocksdb_comparator(void *, const char *a, size_t a_len, const char *b, size_t b_len) {
  if (a_len == KEY_LEN && b_len == KEY_LEN) [[likely]] {
    const uint64_t a_id = load_be64(a), b_id = load_be64(b);
    if (a_id != b_id) return a_id < b_id ? -1 : 1;
    const uint32_t a_floor = load_be32(a + 8), b_floor = load_be32(b + 8);
    return a_floor < b_floor ? -1 : a_floor > b_floor;
  }
  const int order = memcmp(a, b, std::min(a_len, b_len));
  return order != 0 ? order : a_len < b_len ? -1 : a_len > b_len;
}

std::string family_name(int index) {
  return index == 0 ? "default" : "shard_" + std::to_string(index);
}

// Takes off the families and the database of an open attempt.
void close_database(rocksdb_t *db, const std::vector<rocksdb_column_family_handle_t *> &families) {
  for (rocksdb_column_family_handle_t *family : families) rocksdb_column_family_handle_destroy(family);
  rocksdb_close(db);
}

rocksdb_t *open_families(const rocksdb_options_t *options, const std::string &path,
                         const std::vector<std::string> &names,
                         std::vector<rocksdb_column_family_handle_t *> *families, rocksdb_error_c *error) {
  std::vector<const char *> texts;
  for (const std::string &name : names) texts.push_back(name.c_str());
  const std::vector<const rocksdb_options_t *> family_options(names.size(), options);
  families->resize(names.size());
  return rocksdb_open_column_families(options, path.c_str(), static_cast<int>(names.size()), texts.data(),
                                      family_options.data(), families->data(), error->ptr());
}

}  // namespace

// The C interface's view of the merge functions.
struct merge_operators_t {
  using state_t = data_db_c::merge_state_t;

  static char *result(std::optional<std::string_view> merged, stats_handle_t *counter, unsigned char *success,
                      size_t *length) {
    *success = merged.has_value();
    *length = merged ? merged->size() : 0;
    if (!merged) return nullptr;
    if (counter != nullptr) stats_add64(counter, 1);
    return const_cast<char *>(merged->data());
  }

  template <auto merge>
  static char *full(void *closure, const char *, size_t, const char *existing, size_t existing_len,
                    const char *const *operands, const size_t *lengths, int count, unsigned char *success,
                    size_t *length) {
    const auto *const state = static_cast<const state_t *>(closure);
    std::optional<std::string_view> base;
    if (existing != nullptr) base = {existing, existing_len};
    return result(merge(state->resolver, base, operands_t{operands, lengths, count}), state->stats.full_merges,
                  success, length);
  }

  template <auto merge>
  static char *partial(void *closure, const char *, size_t, const char *const *operands, const size_t *lengths,
                       int count, unsigned char *success, size_t *length) {
    const auto *const state = static_cast<const state_t *>(closure);
    return result(merge(operands_t{operands, lengths, count}), state->stats.partial_merges, success, length);
  }

  static const char *name(void *) { return "nomdb_merge_operators"; }
  static const char *hist_name(void *) { return "nomdb_hist_merge_operators"; }
  static void no_destructor(void *) {}
  // Results lie in the merging thread's own buffer.
  static void merge_op_delete_value(void *, const char *, size_t) {}
};

rocksdb_mergeoperator_t *data_db_c::create_merge_operator() {
  using op = merge_operators_t;
  if (m_datatype == numeric) {
    return rocksdb_mergeoperator_create(&m_merge_state, op::no_destructor, op::full<merge_op_full>,
                                        op::partial<merge_op_partial>, op::merge_op_delete_value, op::name);
  }
  return rocksdb_mergeoperator_create(&m_merge_state, op::no_destructor, op::full<merge_op_full_hist>,
                                      op::partial<merge_op_partial_hist>, op::merge_op_delete_value,
                                      op::hist_name);
}

data_db_c::data_db_c(std::string location, const data_db_params_t &params)
    : m_location(std::move(location)),
      m_datatype(params.datatype),
      m_manager(params.manager),
      m_type(params.type),
      _max_db_write_buffer_size(params.max_db_write_buffer_size),
      m_start_ms(params.start_s * 1000),
      m_merge_state{params.conflict_resolver, nom_stats(params.datatype)} {}

data_db_c::~data_db_c() {
  velmar_db_admin_rocksdb_release(&m);
  if (m_comparator != nullptr) rocksdb_comparator_destroy(m_comparator);
  if (m_write_options != nullptr) rocksdb_writeoptions_destroy(m_write_options);
}

void data_db_c::setup_shard() {
  if (m_initialized) return;
  const krel_json_ptr json(velmar_db_raw_nom_create_options_json());
  rocksdb_options_t *const options = velmar_db_admin_rocksdb_options_create(m_type, json.get());
  krel_assert(options != nullptr);
  m_comparator = rocksdb_comparator_create(
      nullptr, [](void *) {}, nomdb_rocksdb_comparator, [](void *) { return COMPARATOR_NAME; });
  rocksdb_options_set_comparator(options, m_comparator);
  rocksdb_options_set_db_write_buffer_size(options, _max_db_write_buffer_size);
  rocksdb_options_set_max_total_wal_size(options, _max_db_write_buffer_size);
  rocksdb_options_set_merge_operator(options, create_merge_operator());
  m_write_options = rocksdb_writeoptions_create();
  rocksdb_writeoptions_set_sync(m_write_options, 0);
  m.options = options;
  m.manager = m_manager;
  m_initialized = true;
}

std::vector<std::string> data_db_c::list_families(std::string *error) {
  rocksdb_error_c list_error;
  size_t count = 0;
  char **const list = rocksdb_list_column_families(m.options, m_location.c_str(), &count, list_error.ptr());
  std::vector<std::string> names;
  if (list_error) {
    *error = list_error.text();
  } else {
    names.assign(list, list + count);
  }
  if (list != nullptr) rocksdb_list_column_families_destroy(list, count);
  return names;
}

// A new database with all families at that path, closed again.
void data_db_c::create_database(const std::string &path) {
  rocksdb_options_set_create_if_missing(m.options, 1);
  rocksdb_options_set_error_if_exists(m.options, 1);
  rocksdb_options_set_create_missing_column_families(m.options, 1);
  std::vector<std::string> names;
  for (int i = 0; i < NUM_COLUMN_FAMILIES; ++i) names.push_back(family_name(i));
  std::vector<rocksdb_column_family_handle_t *> families;
  rocksdb_error_c error;
  rocksdb_t *const db = open_families(m.options, path, names, &families, &error);
  if (db == nullptr) krel_fatal("%s: couldn't open db %s - %s\n", __func__, path.c_str(), error.text());
  close_database(db, families);

  size_t count = 0;
  char **const list = rocksdb_list_column_families(m.options, path.c_str(), &count, error.ptr());
  if (error) {
    krel_fatal("%s: can't get column family list for %s - %s\n", __func__, path.c_str(), error.text());
  }
  rocksdb_list_column_families_destroy(list, count);
  if (count != NUM_COLUMN_FAMILIES) {
    krel_fatal("%s: expected to make a database at %s with %d column familes, but made one with %zu insteadd\n",
               __func__, path.c_str(), NUM_COLUMN_FAMILIES, count);
  }
}

void data_db_c::check_for_and_create_shard() {
  krel_assert(!m_location.empty());
  krel_assert(m_initialized);
  struct stat st;
  if (stat(m_location.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode))
      krel_fatal("%s: %s exists but is not a directory\n", __func__, m_location.c_str());
    if (!fs::is_empty(m_location)) {
      std::string error;
      if (list_families(&error).empty()) {
        krel_fatal("%s: can't get column family list for %s - %s\n", __func__, m_location.c_str(),
                   error.c_str());
      }
      return;
    }
  }
  const std::string temporary = m_location + TEMPORARY_SUFFIX;
  std::error_code failed;
  if (fs::exists(temporary, failed)) {
    krel_log(krel_notice, "cleaning up temporary directory at %s\n", temporary.c_str());
    fs::remove_all(temporary, failed);
    if (failed) {
      krel_fatal("%s: tried to remove %s, but failed (%d - %s)\n", __func__, temporary.c_str(), failed.value(),
                 failed.message().c_str());
    }
  }
  create_database(temporary);
  if (rename(temporary.c_str(), m_location.c_str()) != 0) {
    krel_fatal("%s: couldn't rename %s to %s - %s\n", __func__, temporary.c_str(), m_location.c_str(),
               strerror(errno));
  }
  if (const std::error_code code =
          util::io::system_files().sync_directory(util::io::parent_directory(m_location))) {
    krel_log(krel_error, "ERROR: cannot sync the directory of %s: %s\n", m_location.c_str(),
             code.message().c_str());
  }
}

// Empty logs are left by runs that wrote nothing.
void data_db_c::cleanup_location_dir() {
  std::error_code failed;
  for (const auto &entry : fs::directory_iterator(m_location, failed)) {
    std::error_code ignored;
    if (entry.path().extension() != ".log" || !entry.is_regular_file(ignored) ||
        entry.file_size(ignored) != 0) {
      continue;
    }
    if (!fs::remove(entry.path(), failed)) {
      krel_fatal("Unable to remove file %s\n", entry.path().c_str());
    }
  }
}

bool data_db_c::open_all_families() {
  cleanup_location_dir();
  std::string error;
  const std::vector<std::string> names = list_families(&error);
  if (names.empty()) {
    krel_log(krel_error, "Could not get list of column familes for rocksdb %s: %s\n", m_location.c_str(),
             error.c_str());
    return false;
  }
  rocksdb_options_set_create_if_missing(m.options, 0);
  rocksdb_options_set_error_if_exists(m.options, 0);
  std::vector<rocksdb_column_family_handle_t *> families;
  rocksdb_error_c open_error;
  rocksdb_t *const db = open_families(m.options, m_location, names, &families, &open_error);
  if (db == nullptr) {
    krel_log(krel_error, "Could not open rocksdb: %s\n", open_error.text());
    return false;
  }
  if (families.size() != NUM_COLUMN_FAMILIES) {
    krel_log(krel_notice, "%s: INFO: shard %s created with %zu column families instead of %d\n", __func__,
             m_location.c_str(), families.size(), NUM_COLUMN_FAMILIES);
  }
  for (rocksdb_column_family_handle_t *family : families) {
    m_family_ids.push_back(rocksdb_column_family_handle_get_id(family));
  }
  velmar_db_admin_rocksdb_init(&m, db, std::move(families), m.options, m_manager);
  return true;
}

bool data_db_c::open_shard() {
  if (m_open.load(std::memory_order_acquire)) return true;
  krel_assert(!m_location.empty());
  krel_assert(m_initialized);
  const krel_lock_c lock(m_fullopen_lock);
  if (m_open.load(std::memory_order_relaxed)) return true;
  if (!open_all_families()) return false;
  m_open.store(true, std::memory_order_release);
  return true;
}

bool data_db_c::repair_shard() {
  setup_shard();
  const krel_lock_c lock(m_fullopen_lock);
  krel_assert(m.db == nullptr);
  rocksdb_options_set_error_if_exists(m.options, 0);
  rocksdb_error_c error;
  rocksdb_repair_db(m.options, m_location.c_str(), error.ptr());
  if (error) krel_log(krel_error, "Rocksdb repair failed: %s\n", error.text());
  return !error;
}

void data_db_c::flush() {
  if (!open_shard()) krel_fatal("Unable to flush %s: it is not open\n", m_location.c_str());
  rocksdb_flushoptions_t *const options = rocksdb_flushoptions_create();
  rocksdb_flushoptions_set_wait(options, 1);
  for (rocksdb_column_family_handle_t *family : m.column_family_handles) {
    rocksdb_error_c error;
    rocksdb_flush_cf(m.db, options, family, error.ptr());
    if (error) krel_fatal("Unable to flush %s: %s\n", m_location.c_str(), error.text());
  }
  rocksdb_flushoptions_destroy(options);
}

}  // namespace velmar_db_raw_nom
