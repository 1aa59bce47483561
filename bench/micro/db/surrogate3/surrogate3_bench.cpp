// The surrogate database with metrics of four tags and names of about 100 bytes. The figures of size and time
// at a million come with SURROGATE3_BENCH_METRICS=1000000; without it the store is small.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <semaphore>

#include "db/surrogate3/coordinator.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

using namespace db;
using namespace db::surrogate3;

namespace {

constexpr size_t BATCH = 5000;
constexpr int IN_FLIGHT = 4;
constexpr uint32_t READERS = 2;

size_t store_size() {
  const char *wanted = getenv("SURROGATE3_BENCH_METRICS");
  return wanted ? strtoull(wanted, nullptr, 10) : 20000;
}

std::string directory() {
  const char *base = getenv("TMPDIR");
  return std::string(base && *base ? base : "/tmp") + "/velmar_surrogate3_bench";
}

metric_locator_sp metric(size_t i) {
  uint8_t uuid[16] = {1, 2, 3, 4};
  uuid[15] = static_cast<uint8_t>(i / 1000);
  char name[160];
  const int length =
      snprintf(name, sizeof name,
               "request.latency.of.handler.%zu|ST[cluster:eu-west-%zu,host:node-%06zu,role:frontend,"
               "service:checkout]",
               i % 1000, i % 4, i / 50);
  const mem_reader_t reader = {name, static_cast<size_t>(length)};
  return metric_locator_adopt(velmar_metric_locator_create_full(1, METRIC_TYPE_NUMERIC, uuid, &reader));
}

std::unique_ptr<coordinator_c> open_store() {
  coordinator_config_t config;
  config.num_threads = READERS;
  config.capacity_per_reader_shard = 96000000 / READERS;
  auto store = std::make_unique<coordinator_c>(
      config, std::make_unique<dir_based_file_selection_strategy_c>(directory() + "/flatbuffers"));
  store->prime_cache();
  return store;
}

// Resident memory of this process in bytes: all, and what is not of files.
std::pair<double, double> resident() {
  double all = 0, anonymous = 0;
  if (FILE *status = fopen("/proc/self/status", "r")) {
    char line[256];
    while (fgets(line, sizeof line, status)) {
      sscanf(line, "VmRSS: %lf", &all);
      sscanf(line, "RssAnon: %lf", &anonymous);
    }
    fclose(status);
  }
  return {all * 1024, anonymous * 1024};
}

// Of all threads, in microseconds.
double cpu_time() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto us = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return us(usage.ru_utime) + us(usage.ru_stime);
}

double bytes_on_disk() {
  double sum = 0;
  for (const auto &file : std::filesystem::recursive_directory_iterator(directory()))
    if (file.is_regular_file()) sum += static_cast<double>(file.file_size());
  return sum;
}

using entries_t = std::vector<surrogate::write_entry_c>;

entries_t batch_of(size_t from, size_t count, int64_t timestamp_ms) {
  entries_t entries;
  entries.reserve(count);
  for (size_t i = from; i < from + count; ++i) {
    surrogate::key_c key;
    key.set_data(metric(i), std::chrono::milliseconds(timestamp_ms));
    entries.emplace_back(std::move(key));
  }
  return entries;
}

// Submits batches with several under way, and waits for all. Only what the database does is timed.
void write_batches(coordinator_c &store, std::vector<entries_t> &batches) {
  std::counting_semaphore<> room(IN_FLIGHT);
  for (entries_t &batch : batches) {
    room.acquire();
    store.write_surrogate_set_asynch(
        batch.data(), batch.size(),
        [](surrogate::value_manager_c *manager, surrogate::value_reader_c *reader, void *closure) {
          manager->free_values(reader);
          static_cast<std::counting_semaphore<> *>(closure)->release();
        },
        nullptr, &room);
  }
  for (int i = 0; i < IN_FLIGHT; ++i) room.acquire();
}

void per_metric(benchmark::State &state, const char *name, double amount, size_t metrics) {
  state.counters[name] = amount / static_cast<double>(metrics);
}

void new_metrics(benchmark::State &state) {
  const size_t metrics = store_size();
  for (auto _ : state) {
    std::filesystem::remove_all(directory());
    const double before = resident().first, before_anonymous = resident().second;
    const auto store = open_store();
    double seconds = 0, cpu = 0;
    for (size_t from = 0; from < metrics;) {
      std::vector<entries_t> batches;
      for (; from < metrics && batches.size() < 20; from += BATCH)
        batches.push_back(batch_of(from, std::min(BATCH, metrics - from), 1'700'000'000'000));
      const double cpu_start = cpu_time();
      const uint64_t start = krel_gethrtime();
      write_batches(*store, batches);
      seconds += static_cast<double>(krel_gethrtime() - start) / 1e9;
      cpu += cpu_time() - cpu_start;
    }
    state.SetIterationTime(seconds);
    per_metric(state, "CPUus/metric", cpu, metrics);
    per_metric(state, "RSS/metric", resident().first - before, metrics);
    per_metric(state, "RssAnon/metric", resident().second - before_anonymous, metrics);
    per_metric(state, "disk/metric", bytes_on_disk(), metrics);
  }
  state.counters["new/s"] =
      benchmark::Counter(static_cast<double>(metrics), benchmark::Counter::kIsIterationInvariantRate);
}

// The first start merges the many files of the writing, the second one just opens what it finds.
void start_up(benchmark::State &state) {
  const double cpu_start = cpu_time();
  for (auto _ : state) {
    const auto store = open_store();
    benchmark::DoNotOptimize(store->find(metric(1)));
  }
  per_metric(state, "CPUus/metric", cpu_time() - cpu_start, store_size());
  per_metric(state, "disk/metric", bytes_on_disk(), store_size());
}

void known_after_start(benchmark::State &state) {
  const size_t metrics = store_size();
  for (auto _ : state) {
    const double before = resident().first, before_anonymous = resident().second;
    const auto store = open_store();
    double seconds = 0, cpu = 0;
    for (size_t from = 0; from < metrics; from += BATCH) {
      std::vector<metric_locator_sp> wanted;
      for (size_t i = from; i < std::min(from + BATCH, metrics); ++i) wanted.push_back(metric(i));
      const double cpu_start = cpu_time();
      const uint64_t start = krel_gethrtime();
      const auto pages = store->batch_find(wanted);
      size_t found = 0;
      while (pages->fill_next_page()) found += pages->get_page_locators().size();
      seconds += static_cast<double>(krel_gethrtime() - start) / 1e9;
      cpu += cpu_time() - cpu_start;
      krel_assert(found == wanted.size());
    }
    state.SetIterationTime(seconds);
    per_metric(state, "CPUus/metric", cpu, metrics);
    per_metric(state, "RSS/metric", resident().first - before, metrics);
    per_metric(state, "RssAnon/metric", resident().second - before_anonymous, metrics);
  }
  state.counters["found/s"] =
      benchmark::Counter(static_cast<double>(metrics), benchmark::Counter::kIsIterationInvariantRate);
}

void known_metrics(benchmark::State &state, bool canonical) {
  const size_t metrics = std::min<size_t>(store_size(), 100000);
  const auto store = open_store();
  std::vector<entries_t> batches;
  for (size_t from = 0; from < metrics; from += BATCH)
    batches.push_back(batch_of(from, std::min(BATCH, metrics - from), 1'700'000'000'000));
  std::vector<entries_t> written = batches;
  write_batches(*store, written);
  for (auto _ : state) {
    if (!canonical) {
      state.PauseTiming();
      written = batches;  // a write leaves the canonical locators in the entries
      state.ResumeTiming();
    }
    write_batches(*store, written);
  }
  state.counters["known/s"] =
      benchmark::Counter(static_cast<double>(metrics), benchmark::Counter::kIsIterationInvariantRate);
}

void find_one(benchmark::State &state) {
  const auto store = open_store();
  const metric_locator_sp wanted = metric(7);
  store->find(wanted);
  for (auto _ : state) benchmark::DoNotOptimize(store->find(wanted));
}

}  // namespace

BENCHMARK(new_metrics)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(start_up)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(start_up)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(known_after_start)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(known_metrics, fresh_locators, false)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(known_metrics, canonical_locators, true)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(find_one)->UseRealTime();
