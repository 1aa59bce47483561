#pragma once
// RocksDB's own log lines in the node's log stream "rocksdb".

struct rocksdb_options_t;

namespace velmar_db_admin {

// The options keep the logger; all share one.
void set_info_log(rocksdb_options_t *options);

}  // namespace velmar_db_admin
