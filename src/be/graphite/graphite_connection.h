#pragma once
// Connections that carry lines. Each belongs to one loop thread and has one batch of lines on its way at a
// time: while that is parsed and stored nothing is read, so a slow store slows its clients down.
//
// Memory. What is read is taken from the budget of the put path first, and a connection without any waits for
// it. Between two batches a connection keeps the beginning of a line; all beginnings that are longer than a
// line ever should be share 16 MiB.

#include <cstddef>

#include "be/graphite/rest_graphite_mgr.h"

namespace be::graphite {

constexpr size_t BUFFER_SIZE_MIN = 512000, BUFFER_SIZE_MAX = 64 << 20;

struct listener_config_t {
  source_t source{};
  size_t buffer_size = BUFFER_SIZE_MIN;  // two more than the longest line
};

void connections_init();  // at start
// Takes a connected non-blocking socket over. From any thread.
void connection_serve(int fd, const listener_config_t &config);
int connections_open();
// Every connection takes what its client has sent by now, and ends. Returns when they have ended, after ten
// seconds at the latest. Blocks: not on a loop thread. Once, at the end of the process.
void connections_close();

}  // namespace be::graphite
