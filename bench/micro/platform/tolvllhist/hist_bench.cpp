// Binning, insert, merge and the stored form, on latency-like data of about a hundred bins.

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/tolvllhist/tolvllhist.h"

namespace {

struct deleter_t {
  void operator()(histogram_t *hist) const { hist_free(hist); }
};
using hist_ptr = std::unique_ptr<histogram_t, deleter_t>;

std::vector<double> latencies(unsigned seed) {
  std::mt19937_64 random(seed);
  std::lognormal_distribution<double> law(std::log(0.003), 0.7);
  std::vector<double> values(4096);
  for (double &value : values) value = law(random);
  return values;
}

hist_ptr filled(unsigned seed) {
  hist_ptr hist(hist_alloc());
  for (double value : latencies(seed)) hist_insert(hist.get(), value, 3);
  return hist;
}

void bucket_from_double(benchmark::State &state) {
  const std::vector<double> values = latencies(1);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hist_bucket_from_double(values[i++ & 4095]));
}
BENCHMARK(bucket_from_double);

void bucket_from_double_on_edges(benchmark::State &state) {
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hist_bucket_from_double(static_cast<double>(i++ & 4095) / 100));
}
BENCHMARK(bucket_from_double_on_edges);

void bucket_from_int(benchmark::State &state) {
  const std::vector<double> values = latencies(1);
  std::vector<int64_t> ns;
  for (double value : values) ns.push_back(static_cast<int64_t>(value * 1e9));
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hist_bucket_from_int(ns[i++ & 4095], -9));
}
BENCHMARK(bucket_from_int);

void insert(benchmark::State &state) {
  const std::vector<double> values = latencies(1);
  hist_ptr hist = filled(1);
  size_t i = 0;
  for (auto _ : state) hist_insert(hist.get(), values[i++ & 4095], 1);
  state.counters["bins"] = hist_num_buckets(hist.get());
}
BENCHMARK(insert);

void insert_into_empty(benchmark::State &state) {
  const std::vector<double> values = latencies(1);
  for (auto _ : state) {
    hist_ptr hist(hist_alloc());
    for (size_t i = 0; i < 100; ++i) hist_insert(hist.get(), values[i], 1);
  }
  state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(insert_into_empty);

void accumulate_other_bins(benchmark::State &state) {
  const hist_ptr a = filled(1), b = filled(2);
  const histogram_t *source = b.get();
  for (auto _ : state) {
    hist_ptr target(hist_clone(a.get()));
    hist_accumulate(target.get(), &source, 1);
  }
  state.counters["bins"] = hist_num_buckets(a.get());
}
BENCHMARK(accumulate_other_bins);

void accumulate_same_bins(benchmark::State &state) {
  const hist_ptr a = filled(1), b = filled(1);
  const histogram_t *source = b.get();
  for (auto _ : state) hist_accumulate(a.get(), &source, 1);
}
BENCHMARK(accumulate_same_bins);

void serialize(benchmark::State &state) {
  const hist_ptr hist = filled(1);
  std::string bytes(hist_serialize_estimate(hist.get()), '\0');
  for (auto _ : state) benchmark::DoNotOptimize(hist_serialize(hist.get(), bytes.data(), bytes.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(serialize);

void deserialize(benchmark::State &state) {
  hist_ptr hist = filled(1);
  std::string bytes(hist_serialize_estimate(hist.get()), '\0');
  hist_serialize(hist.get(), bytes.data(), bytes.size());
  for (auto _ : state) benchmark::DoNotOptimize(hist_deserialize(hist.get(), bytes.data(), bytes.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(deserialize);

void quantile(benchmark::State &state) {
  const hist_ptr hist = filled(1);
  const double share = 0.99;
  double out;
  for (auto _ : state) benchmark::DoNotOptimize(hist_approx_quantile(hist.get(), &share, 1, &out));
}
BENCHMARK(quantile);

}  // namespace
