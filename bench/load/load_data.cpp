#include "load_data.h"

#include <cstdio>
#include <cstring>

namespace {

enum purpose_e : uint64_t { KIND = 1, VALUE, BASE, UUID, LOT, TAG, NULLS, BINS };

uint64_t mix(uint64_t x) {  // splitmix64's finish
  x += 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

constexpr uint64_t SERIES_OF_A_CHECK = 64;

}  // namespace

load_data_c::load_data_c(const load_options_t &options) : m_options(options) {
  for (const uint32_t share : m_options.shares) m_share_sum += share;
}

uint64_t load_data_c::hash(uint64_t series, uint64_t step, uint64_t purpose) const {
  return mix(mix(mix(m_options.seed * 8 + purpose) ^ series) ^ step);
}

uint64_t load_data_c::lot(uint64_t series) const {
  return hash(series, 0, LOT);
}

kind_e load_data_c::kind(uint64_t series) const {
  uint64_t at = hash(series, 0, KIND) % m_share_sum;
  int kind = 0;
  for (; at >= m_options.shares[kind]; kind++) at -= m_options.shares[kind];
  return static_cast<kind_e>(kind);
}

void load_data_c::value(uint64_t series, uint64_t step, load_value_t *out) const {
  const uint64_t h = hash(series, step, VALUE), base = hash(series, 0, BASE);
  out->kind = kind(series);
  out->is_null = false;
  switch (out->kind) {
    case kind_e::null:
      out->is_null = hash(series, step, NULLS) & 1;
      [[fallthrough]];
    case kind_e::gauge:  // hundredths around a level of the series' own
      out->integer = static_cast<int64_t>(base % 2000000) - 1000000 + static_cast<int64_t>(h % 2001) - 1000;
      break;
    case kind_e::counter: {  // never falls
      const uint64_t rate = 1 + base % 1000000;
      out->integer = static_cast<int64_t>(base % 1000000007 + step * rate + h % rate);
      break;
    }
    case kind_e::integer:
      out->integer = static_cast<int32_t>(h);
      break;
    case kind_e::real:  // all the digits a double has
      out->real =
          (static_cast<double>(h >> 11) / 9007199254740992.0 - 0.5) * static_cast<double>(1 + base % 10000);
      break;
    case kind_e::histogram: {
      uint64_t bits = hash(series, step, BINS);
      out->bin_count = 1 + static_cast<int>(h % MAX_BINS);
      int rank = static_cast<int>(h / MAX_BINS % 20);
      for (int i = 0; i < out->bin_count; i++, bits = mix(bits)) {
        out->bins[i] = {static_cast<int8_t>(10 + rank % 90), static_cast<int8_t>(rank / 90 - 1),
                        1 + bits % 1000};
        rank += 1 + static_cast<int>(bits >> 60);
      }
      break;
    }
  }
}

void load_data_c::uuid_bytes(uint64_t series, uint8_t out[16]) const {
  const uint64_t group = series / SERIES_OF_A_CHECK;
  const uint64_t words[2] = {hash(group, 0, UUID), hash(group, 1, UUID)};
  memcpy(out, words, 16);
  out[6] = static_cast<uint8_t>((out[6] & 0x0f) | 0x40);
  out[8] = static_cast<uint8_t>((out[8] & 0x3f) | 0x80);
}

std::string load_data_c::uuid(uint64_t series) const {
  if (is_graphite(m_options.form)) return m_options.check_uuid;
  uint8_t bytes[16];
  uuid_bytes(series, bytes);
  std::string text;
  char two[3];
  for (int i = 0; i < 16; i++) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    snprintf(two, sizeof(two), "%02x", bytes[i]);
    text += two;
  }
  return text;
}

std::string load_data_c::check_name(uint64_t series) const {
  return "load`check" + std::to_string(series / SERIES_OF_A_CHECK) + "`c_" + std::to_string(m_options.account);
}

std::string load_data_c::metric_name(uint64_t series) const {
  std::string name =
      "load_" + std::string(kind_name(static_cast<int>(kind(series)))) + "_" + std::to_string(series);
  for (uint32_t t = 0; t < m_options.tags; t++) {
    // few values of the first tag, more of each next one: as hosts, devices and states have
    const uint64_t values = 4u << (2 * (t % 6));
    char tag[64];
    snprintf(tag, sizeof(tag), "%stag%02u:v%llu", t ? "," : "|ST[", t,
             static_cast<unsigned long long>(hash(series, t, TAG) % values));
    name += tag;
  }
  return m_options.tags ? name + "]" : name;
}
