// Lines into a batch: of metrics that are known, and of one that is met for the first time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>

#include "be/graphite/graphite_line.h"
#include "be/graphite/rest_graphite_mgr.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"

namespace {

using namespace be::graphite;

const source_t SOURCE{{1, 2, 3}, 1};
constexpr int LINES = 8000;  // a full read

std::string name(int series, bool tags) {
  char text[160];
  snprintf(
      text, sizeof(text),
      tags ? "request_duration;host=web%05d;dc=ams;method=get;service=api" : "collectd.web%05d.cpu-0.cpu-idle",
      series);
  return text;
}

std::string make_chunk(int metrics, bool tags, const char *value) {
  std::string chunk;
  const std::string time = std::to_string(krel_now_ms() / 1000);
  for (int i = 0; i < LINES; i++)
    chunk += name(static_cast<int>(int64_t{i} * 7919 % metrics), tags) + " " + value + " " + time + "\n";
  return chunk;
}

void parse(benchmark::State &state, const std::string &chunk, be::raw::known_metrics_c *known) {
  for (auto _ : state) {
    atomic_counters_t counters;
    be::raw::raw_batch_t batch;
    const auto lines = static_cast<size_t>(std::count(chunk.begin(), chunk.end(), '\n'));
    rest_graphite_mgr_parse_ingestion_data(SOURCE, &counters, known, chunk.data(), chunk.size(), lines, &batch);
    if (batch.size() != LINES) state.SkipWithError("a line was refused");
  }
  state.SetItemsProcessed(state.iterations() * LINES);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(chunk.size()));
}

void known_metrics(benchmark::State &state, bool tags, const char *value) {
  const krel_memory_section_c section;
  const auto metrics = static_cast<int>(state.range(0));
  be::raw::known_metrics_c known;
  for (int i = 0; i < metrics; i++) {
    const std::string sent = name(i, tags);
    std::string canonical;
    rewrite_name(sent, &canonical);
    mem_reader_t reader;
    mem_reader_init_mem(&reader, canonical.data(), canonical.size());
    const auto locator = metric_locator_adopt(
        velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, SOURCE.check_uuid.data(), &reader));
    velmar_metric_locator_set_surrogate_id(locator.get(), static_cast<uint64_t>(i) + 1);
    velmar_metric_locator_set_canonical(locator.get());
    known.insert({SOURCE.check_uuid.data(), 1, sent,
                  tags ? be::raw::name_form_e::graphite : be::raw::name_form_e::metric},
                 locator.get());
  }
  parse(state, make_chunk(metrics, tags, value), &known);
}
BENCHMARK_CAPTURE(known_metrics, plain_double, false, "1234.5678")->Arg(1000)->Arg(50000);
BENCHMARK_CAPTURE(known_metrics, plain_integer, false, "1234567")->Arg(50000);
BENCHMARK_CAPTURE(known_metrics, tags_double, true, "1234.5678")->Arg(1000)->Arg(50000);

void unknown_metrics(benchmark::State &state, bool tags) {
  const krel_memory_section_c section;
  be::raw::known_metrics_c known;
  parse(state, make_chunk(LINES, tags, "1234.5678"), &known);
}
BENCHMARK_CAPTURE(unknown_metrics, plain, false);
BENCHMARK_CAPTURE(unknown_metrics, tags, true);

void line_alone(benchmark::State &state) {
  const uint64_t now_ms = krel_now_ms();
  const std::string line = name(1, true) + " 1234.5678 " + std::to_string(now_ms / 1000);
  for (auto _ : state) {
    line_t out;
    if (parse_line(line, now_ms, &out) != line_fault_e::none) state.SkipWithError("refused");
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(line_alone);

}  // namespace
