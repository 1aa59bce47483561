// Owners of a key on a ring of 100 nodes, and the compilation of such a topology.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <random>

#include "libvelmar/topo/topo.h"

namespace {

std::string document(int nodes, int weight, bool sided) {
  std::string xml = "<nodes write_copies=\"3\">";
  for (int i = 0; i < nodes; i++)
    xml += fmt::format(
        "<node id=\"{:08x}-0000-4000-8000-0123456789ab\" address=\"127.0.0.1\" port=\"1\" apiport=\"1\" "
        "weight=\"{}\"{}/>",
        i, weight,
        !sided  ? ""
        : i % 2 ? " side=\"a\""
                : " side=\"b\"");
  return xml + "</nodes>";
}

void owners(benchmark::State &state) {
  std::string err;
  const auto tc = topo_compile_text(document(100, 170, state.range(0) != 0), nullptr, &err);
  std::mt19937_64 random(1);
  std::vector<topo_location_t> keys(4096);
  for (auto &key : keys)
    for (auto &byte : key) byte = static_cast<uint8_t>(random());
  host_config *loc[TOPO_MAX_WRITE_COPIES];
  size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(topo_find_insertion_point_key(tc.get(), keys[i++ & 4095].data(), loc, 0));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(owners)->ArgName("sided")->Arg(0)->Arg(1);

void compile(benchmark::State &state) {
  const std::string xml = document(100, 170, false);
  std::string err;
  for (auto _ : state) benchmark::DoNotOptimize(topo_compile_text(xml, nullptr, &err));
}
BENCHMARK(compile)->Unit(benchmark::kMillisecond);

}  // namespace
