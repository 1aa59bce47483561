#pragma once
// What every subsystem needs once per process. The values are written at start, on the main thread and
// before any loop runs; the getters are then safe from any thread.

#include <cstdint>
#include <string>

// ---- start-up, in this order
// False (logged) when a database's location is missing. A null id is an ephemeral node: always true.
bool velmar_global_check_config(const char *node_id);
void velmar_global_setup();
void velmar_global_start();
// Settings of the locators' latest values, and the coroutine that moves their future bound.
void velmar_global_locators_init();

void velmar_init_reconstitute_mode(int mode);
int get_reconstitute_mode();
void velmar_set_topology_expected(bool expected);
bool velmar_get_topology_expected();

// ---- values
const char *velmar_global_get_local_state_dir();
int32_t velmar_global_get_krelev_rw_advisory_limit();  // bytes that one turn of a loop reads; 0: no limit
bool velmar_global_value_exceeds_krelev_rw_advisory_limit(int value);
int64_t velmar_global_get_big_sendbuf_size();  // bytes

// The first "{node}" of a configured location gives way to the node's id.
std::string velmar_global_node_path(const std::string &location, const char *node_id);
