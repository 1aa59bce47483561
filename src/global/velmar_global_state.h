#pragma once
// What every subsystem needs once per process. The values are written at start, on the main thread and
// before any loop runs; the getters are then safe from any thread.

#include <cstdint>
#include <memory>
#include <string>

struct krel_log_stream_t;

namespace db::surrogate {
class lookup_synch_c;
class lookup_asynch_c;
class writer_asynch_c;
}  // namespace db::surrogate
struct velmar_db_admin_rocksdb_types_t;
struct velmar_db_admin_rocksdb_type_t;
struct velmar_db_admin_rocksdb_manager_t;
struct velmar_metric_locator_t;

// ---- start-up, in this order
// False (logged) when a database's location is missing. A null id is an ephemeral node: always true.
bool velmar_global_check_config(const char *node_id);
void velmar_global_setup();
void velmar_global_start();
// Opens the surrogate database and publishes it. A failure is fatal.
void velmar_global_db_init(const char *node_id, bool is_ephemeral);
void velmar_global_db_close();

void velmar_init_reconstitute_mode(int mode);
int get_reconstitute_mode();
void velmar_set_topology_expected(bool expected);
bool velmar_get_topology_expected();

// ---- values
const char *velmar_global_get_local_state_dir();
int32_t velmar_global_get_krelev_rw_advisory_limit();  // bytes that one turn of a loop reads; 0: no limit
bool velmar_global_value_exceeds_krelev_rw_advisory_limit(int value);
int64_t velmar_global_get_big_sendbuf_size();  // bytes
velmar_db_admin_rocksdb_type_t *velmar_global_get_rocksdb_rawdb_type();
velmar_db_admin_rocksdb_type_t *velmar_global_get_rocksdb_nomdb_type();
velmar_db_admin_rocksdb_types_t *velmar_global_get_rocksdb_types();
velmar_db_admin_rocksdb_manager_t *velmar_global_get_rocksdb_manager();

// The first "{node}" of a configured location gives way to the node's id.
std::string velmar_global_node_path(const std::string &location, const char *node_id);
