#include "be/graphite/graphite_log.h"

#include "platform/krel/base/krel_log.h"

namespace be::graphite {

namespace {
krel_log_stream_t *error_stream = krel_error, *debug_stream = krel_debug;
}

void log_init() {
  error_stream = krel_log_stream_find("error/graphite");
  debug_stream = krel_log_stream_find("debug/graphite");
}

krel_log_stream_t *log_error() {
  return error_stream;
}
krel_log_stream_t *log_debug() {
  return debug_stream;
}

}  // namespace be::graphite
