// Reading text lines: the whole record, and what is left to do when the metric is known already.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "util/raw_record.h"
#include "util/raw_record_number.h"

namespace {

constexpr int LINES = 1000;

// A chunk of lines as a collector sends them.
std::string make_chunk(const char *type, const char *value) {
  std::string chunk;
  for (int i = 0; i < LINES; i++) {
    char line[512];
    snprintf(line, sizeof line,
             "M\t17000000%02d.%03d\tweb%03d`http`c_1234_567890::http`12345678-9abc-def0-1234-56789abc%04x\t"
             "request_duration|ST[dc:ams,host:web%03d,method:get,service:api]\t%s\t%s\n",
             i % 60, i, i, i, i, type, value);
    chunk += line;
  }
  return chunk;
}

void count(benchmark::State &state, const std::string &chunk) {
  state.SetItemsProcessed(state.iterations() * LINES);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(chunk.size()));
}

template <typename F>
void run(benchmark::State &state, const char *type, const char *value, F &&each) {
  const std::string original = make_chunk(type, value);
  std::string bytes = original;
  for (auto _ : state) {
    memcpy(bytes.data(), original.data(), original.size());  // parsing changes the lines
    rw_buffer_t buffer;
    rw_buffer_fill(&buffer, bytes.data(), bytes.size());
    mem_reader_t chunk = rw_buffer_get_reader(&buffer), line;
    while (dorn_record_get_next_line(&buffer, &chunk, &line)) {
      mem_reader_t rest;
      const char *letter = dorn_record_get_next_field(&buffer, &line, &rest);
      if (!letter || dorn_record_type_lookup(letter) != DORN_RECORD_TYPE_M || !each(buffer, rest))
        state.SkipWithError("a line was refused");
    }
  }
  count(state, original);
}

void whole(benchmark::State &state, const char *type, const char *value) {
  run(state, type, value, [](rw_buffer_t &buffer, const mem_reader_t &rest) {
    dorn_record_m_t record;
    const bool ok = dorn_record_parse_m(&buffer, &rest, &record);
    benchmark::DoNotOptimize(record);
    return ok;
  });
}
BENCHMARK_CAPTURE(whole, double, "n", "1234.5678");
BENCHMARK_CAPTURE(whole, uint64, "L", "1234567890123");
BENCHMARK_CAPTURE(whole, text, "s", "some%20text");

void known_metric(benchmark::State &state) {
  run(state, "n", "1234.5678", [](rw_buffer_t &, const mem_reader_t &rest) {
    dorn_record_fields_t fields;
    dorn_record_m_value_t value;
    uint64_t whence_ms;
    const bool ok = dorn_record_split_m(&rest, &fields) &&
                    dorn_record_parse_m_timestamp(mem_reader_view(fields.time), &whence_ms) &&
                    dorn_record_value_from_fields(mem_reader_view(fields.type), &fields.value, &value);
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(fields);
    return ok;
  });
}
BENCHMARK(known_metric);

void number(benchmark::State &state, const char *text) {
  const std::string copy = text;
  for (auto _ : state) {
    double value;
    benchmark::DoNotOptimize(stringtod(copy, &value));
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK_CAPTURE(number, short, "42");
BENCHMARK_CAPTURE(number, long, "0.12345678901234567");
BENCHMARK_CAPTURE(number, exponent, "1.7976931348623157e308");

}  // namespace
