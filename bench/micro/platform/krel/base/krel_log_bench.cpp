#include "platform/krel/base/krel_log.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

void silent_printf(benchmark::State &state) {
  krel_log_stream_t *stream = krel_log_stream_find("debug/bench");
  int n = 0;
  for (auto _ : state) krel_log(stream, "read %d of %s\n", ++n, "something");
}
BENCHMARK(silent_printf);

void silent_fmt(benchmark::State &state) {
  krel_log_stream_t *stream = krel_log_stream_find("debug/bench");
  int n = 0;
  for (auto _ : state) krel_ex_log(stream, "read {} of {}\n", ++n, "something");
}
BENCHMARK(silent_fmt);

krel_log_stream_t *to_nowhere() {
  static krel_log_stream_t *stream =
      krel_log_stream_new_on_fd("debug/nowhere", open("/dev/null", O_WRONLY | O_CLOEXEC));
  return stream;
}

void synch_line(benchmark::State &state) {
  krel_log_go_synch();
  int n = 0;
  for (auto _ : state) krel_log(to_nowhere(), "read %d of %s\n", ++n, "something");
}
BENCHMARK(synch_line);

void asynch_line(benchmark::State &state) {
  if (state.thread_index() == 0) krel_log_go_asynch();
  int n = 0;
  for (auto _ : state) krel_log(to_nowhere(), "read %d of %s\n", ++n, "something");
  if (state.thread_index() == 0) krel_log_go_synch();
}
BENCHMARK(asynch_line)->Threads(1)->Threads(2);

}  // namespace
