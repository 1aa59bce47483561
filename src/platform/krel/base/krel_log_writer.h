#pragma once
// The log's inner door: from a finished line to the stream's outlets. Only krel_log*.cpp include it.

#include <string>

#include "platform/krel/base/krel_log.h"

// Writes or queues one finished line, newline included.
void krel_log_writer_put(krel_log_stream_t *stream, std::string line);
// Writes everything queued, then this line, and syncs its outlets. Gives up on a stuck outlet after a
// few seconds and writes to standard error.
void krel_log_writer_put_fatal(krel_log_stream_t *stream, const std::string &line);
