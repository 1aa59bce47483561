#pragma once
// The topology files of a node and the routes that show and change them.

#include <functional>
#include <vector>

// Loads the topologies and puts the configured pair in force. A nonzero result stops the start. At start, once.
int replicate_mgr_init(const char *node_id);
// Compiles every file of the topology directory that is named by a signature and not known yet. Negative:
// the directory cannot be read. Blocking (names are resolved); one call at a time.
int replicate_mgr_scandir();
// Is this node in the topology that writes go by?
bool replicate_mgr_get_participating();
// /state, /topology/..., /toporing/..., /locate/...
void replicate_mgr_rest_init(bool ephemeral, const char *version);
// The periods of the numeric rollups in seconds, ascending, for /state; none: a node without stores. Before the
// routes.
void replicate_mgr_set_rollups(std::vector<int> periods);
// GET / with anything that no other rule takes: the files of the console.
void replicate_mgr_register_web_ui();

// Lag behind the peers in seconds, for /state; none: no lag.
struct replicate_mgr_lag_t {
  double max_peer_lag = 0, avg_peer_lag = 0;
};
void replicate_mgr_set_lag_source(std::function<replicate_mgr_lag_t()> source);
