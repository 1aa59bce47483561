#pragma once
// What a rollup shard asks of a key-value store on disk: one environment of one table, "data". Both engines are
// thin fronts; results are the stores' own numbers, 0 for success, positive ones the system's errno.
//
// An environment is opened once at a time per directory in this process. Opening, closing and get_map are for
// one thread alone, with no transaction alive; transactions run beside each other, writers one at a time.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace db::ranged::nntbs {

using kv_bytes_t = std::span<const uint8_t>;

enum class kv_move_e { first, last, next, prev, at_or_after };

// One cursor on the table. Destroying it drops what was not committed. A read may change threads.
class kv_txn_c {
 public:
  virtual ~kv_txn_c() = default;
  // at_or_after looks at *key. Key and value are good until the next call.
  virtual int move(kv_move_e how, kv_bytes_t *key, kv_bytes_t *value) = 0;
  virtual int put(kv_bytes_t key, kv_bytes_t value) = 0;
  virtual int erase() = 0;   // where the cursor stands
  virtual int commit() = 0;  // ends it in every case
};

// Which call failed is for the log.
struct kv_status_t {
  int code = 0;
  const char *call = "";
  explicit operator bool() const { return code == 0; }
};

class kv_env_c {
 public:
  struct map_t {
    uint64_t size, used_pages, page_size;  // bytes; pages up to the last one in use
  };

  virtual ~kv_env_c() = default;              // closes
  virtual const char *name() const = 0;       // "LMDB"
  virtual const char *data_file() const = 0;  // its name in the directory
  virtual const char *error_text(int code) const = 0;
  // Is the data file one that the engine can be let loose on? Nothing is trusted: a store maps its file and
  // follows what it finds there. whole: every page that holds structure is read, else only the head. The
  // environment must be closed. Empty when it is; else what is wrong.
  virtual std::string check(const std::string &directory, bool whole) const = 0;
  // Makes the files when there are none. map_size 0: the engine's own.
  virtual kv_status_t open(const std::string &directory, uint64_t map_size) = 0;
  virtual bool is_open() const = 0;
  virtual void close() = 0;
  virtual kv_status_t begin(bool writable, std::unique_ptr<kv_txn_c> *out) = 0;
  virtual map_t get_map() const = 0;
  virtual int sync() = 0;
  virtual void log_growth(const std::string &path, uint64_t old_mib, uint64_t new_mib) const = 0;
};

constexpr const char *LMDB_DATA_FILE = "data.mdb", *MDBX_DATA_FILE = "mdbx.dat";
extern const uint32_t LMDB_DEFAULT_FLAGS;
std::unique_ptr<kv_env_c> make_lmdb_env(uint32_t flags);  // environment flags; MDB_NOTLS is always added
std::unique_ptr<kv_env_c> make_mdbx_env();

// Makes room on disk for a file that will be written through a map, where a full disk would be a signal. 0 or
// errno.
int reserve_file(const std::string &path, int64_t size);

}  // namespace db::ranged::nntbs
