// The two FlatBuffers forms. They differ in how a histogram's buckets, a check's uuid and the samples of a
// metric lie.

#include <string>
#include <vector>

#include "fbs32/metric_list_dorn_generated.h"
#include "fbs32/metric_list_relay_generated.h"
#include "load_encode.h"

namespace {

using flatbuffers::FlatBufferBuilder;
using flatbuffers::Offset;

struct names_t {
  std::string check, uuid, metric;
  uint8_t uuid_bytes[16];
};

template <typename Union>
struct any_t {
  Union type;
  Offset<void> value;
};

// All kinds but histograms, in the tables of namespace NS.
#define NUMERIC_VALUE(NS)                                                                                  \
  any_t<NS::MetricValueUnion> numeric(FlatBufferBuilder &b, const load_value_t &v, NS::MetricValueUnion) { \
    using U = NS::MetricValueUnion;                                                                        \
    if (v.is_null) return {U::AbsentNumericValue, NS::CreateAbsentNumericValue(b).Union()};                \
    switch (v.kind) {                                                                                      \
      case kind_e::counter:                                                                                \
        return {U::UlongValue, NS::CreateUlongValue(b, static_cast<uint64_t>(v.integer)).Union()};         \
      case kind_e::integer:                                                                                \
        return {U::IntValue, NS::CreateIntValue(b, static_cast<int32_t>(v.integer)).Union()};              \
      case kind_e::real:                                                                                   \
        return {U::DoubleValue, NS::CreateDoubleValue(b, v.real).Union()};                                 \
      default:                                                                                             \
        return {U::DoubleValue, NS::CreateDoubleValue(b, static_cast<double>(v.integer) / 100).Union()};   \
    }                                                                                                      \
  }
NUMERIC_VALUE(tolvanus_relay_v1)
NUMERIC_VALUE(dorn)
#undef NUMERIC_VALUE

class fb_encoder_c : public load_encoder_c {
 public:
  fb_encoder_c(const load_data_c &data, uint64_t first, uint64_t count) : m_data(data), m_first(first) {
    m_names.resize(count);
    for (uint64_t i = 0; i < count; i++) {
      names_t &n = m_names[i];
      n.check = data.check_name(first + i);
      n.uuid = data.uuid(first + i);
      n.metric = data.metric_name(first + i);
      data.uuid_bytes(first + i, n.uuid_bytes);
    }
    const std::string check = data.check_name(first);
    m_account = std::stoi(check.substr(check.rfind('_') + 1));
  }
  void begin() override {
    m_builder.Clear();
    clear();
  }

 protected:
  virtual void clear() = 0;
  const names_t &names(uint64_t series) const { return m_names[series - m_first]; }

  const load_data_c &m_data;
  FlatBufferBuilder m_builder{1 << 20};
  load_value_t m_value;
  int32_t m_account;

 private:
  const uint64_t m_first;
  std::vector<names_t> m_names;
};

class relay_encoder_c : public fb_encoder_c {
 public:
  using fb_encoder_c::fb_encoder_c;
  void add(uint64_t series, uint64_t step, uint64_t steps) override {
    const names_t &n = names(series);
    const auto name = m_builder.CreateString(n.metric), check = m_builder.CreateString(n.check),
               uuid = m_builder.CreateString(n.uuid);
    for (uint64_t i = 0; i < steps; i++) {
      m_data.value(series, step + i, &m_value);
      const auto value = make_value();
      const uint64_t ms = m_data.time_ms(step + i);
      m_metrics.push_back(tolvanus_relay_v1::CreateMetric(
          m_builder, ms, check, uuid, m_account,
          tolvanus_relay_v1::CreateMetricValue(m_builder, name, ms, value.type, value.value)));
    }
  }
  std::string_view end() override {
    tolvanus_relay_v1::FinishMetricListBuffer(
        m_builder, tolvanus_relay_v1::CreateMetricList(m_builder, m_builder.CreateVector(m_metrics)));
    return {reinterpret_cast<const char *>(m_builder.GetBufferPointer()), m_builder.GetSize()};
  }
  const char *content_type() const override { return "application/x-tolvanus-metric-list-flatbuffer"; }

 private:
  any_t<tolvanus_relay_v1::MetricValueUnion> make_value() {
    if (m_value.kind != kind_e::histogram)
      return numeric(m_builder, m_value, tolvanus_relay_v1::MetricValueUnion::NONE);
    Offset<tolvanus_relay_v1::HistogramBucket> buckets[MAX_BINS];
    for (int i = 0; i < m_value.bin_count; i++) {
      const load_bin_t &bin = m_value.bins[i];
      buckets[i] = tolvanus_relay_v1::CreateHistogramBucket(m_builder, bin.val, bin.exp, bin.count);
    }
    const auto vector = m_builder.CreateVector(buckets, static_cast<size_t>(m_value.bin_count));
    return {tolvanus_relay_v1::MetricValueUnion::Histogram,
            tolvanus_relay_v1::CreateHistogram(m_builder, vector, false).Union()};
  }
  void clear() override { m_metrics.clear(); }
  std::vector<Offset<tolvanus_relay_v1::Metric>> m_metrics;
};

class dorn_encoder_c : public fb_encoder_c {
 public:
  using fb_encoder_c::fb_encoder_c;
  void add(uint64_t series, uint64_t step, uint64_t steps) override {
    const names_t &n = names(series);
    const auto name = m_builder.CreateString(n.metric), check = m_builder.CreateString(n.check);
    const auto uuid = m_builder.CreateVector(n.uuid_bytes, 16);
    m_samples.clear();
    for (uint64_t i = 0; i < steps; i++) {
      m_data.value(series, step + i, &m_value);
      const auto value = make_value();
      m_samples.push_back(
          dorn::CreateMetricSample(m_builder, m_data.time_ms(step + i), value.type, value.value));
    }
    const auto samples = m_builder.CreateVector(m_samples);
    m_metrics.push_back(dorn::CreateMetric(m_builder, m_data.time_ms(step), check, uuid, m_account,
                                           dorn::CreateMetricValue(m_builder, name, 0, samples)));
  }
  std::string_view end() override {
    dorn::FinishMetricListBuffer(m_builder,
                                 dorn::CreateMetricList(m_builder, m_builder.CreateVector(m_metrics)));
    return {reinterpret_cast<const char *>(m_builder.GetBufferPointer()), m_builder.GetSize()};
  }
  const char *content_type() const override { return "application/x-dorn-metric-list-flatbuffer"; }

 private:
  any_t<dorn::MetricValueUnion> make_value() {
    if (m_value.kind != kind_e::histogram) return numeric(m_builder, m_value, dorn::MetricValueUnion::NONE);
    std::vector<dorn::HistogramBucket> buckets;
    buckets.reserve(MAX_BINS);
    for (int i = 0; i < m_value.bin_count; i++)
      buckets.emplace_back(m_value.bins[i].count, m_value.bins[i].val, m_value.bins[i].exp);
    return {dorn::MetricValueUnion::Histogram,
            dorn::CreateHistogram(m_builder, m_builder.CreateVectorOfStructs(buckets), false).Union()};
  }
  void clear() override { m_metrics.clear(); }
  std::vector<Offset<dorn::Metric>> m_metrics;
  std::vector<Offset<dorn::MetricSample>> m_samples;
};

}  // namespace

std::unique_ptr<load_encoder_c> make_encoder(form_e form, const load_data_c &data, uint64_t first,
                                             uint64_t count) {
  if (form == form_e::relay) return std::make_unique<relay_encoder_c>(data, first, count);
  if (form == form_e::dorn) return std::make_unique<dorn_encoder_c>(data, first, count);
  if (form == form_e::text) return make_text_encoder(data, first, count);
  return make_graphite_encoder(data, first, count);
}
