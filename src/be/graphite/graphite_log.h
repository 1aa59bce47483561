#pragma once
// The streams "error/graphite" and "debug/graphite". Usable before log_init, then they are "error" and "debug".

struct krel_log_stream_t;

namespace be::graphite {

void log_init();
krel_log_stream_t *log_error();
krel_log_stream_t *log_debug();

}  // namespace be::graphite
