#include "platform/krel/base/krel_memory.h"

#include <benchmark/benchmark.h>

namespace {

void section(benchmark::State &state) {
  for (auto _ : state) krel_memory_section_c reading;
}
BENCHMARK(section)->Threads(1)->Threads(2);

void allocate_and_free(benchmark::State &state) {
  for (auto _ : state) krel_memory_safe_free(krel_memory_safe_malloc(64));
  krel_memory_maintenance_ex(2);
}
BENCHMARK(allocate_and_free)->Threads(1)->Threads(2);

}  // namespace
