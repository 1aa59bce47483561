#pragma once
// Whisper files byte by byte.

#include <bit>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class whisper_builder_c {
 public:
  struct ring_t {
    uint32_t step, points;
    std::vector<std::pair<uint32_t, double>> slots;  // time and value as they lie; missing ones are empty
  };
  explicit whisper_builder_c(std::vector<ring_t> rings) : m_rings(std::move(rings)) {}

  // As a ring is filled: the first time written decides the slots of all others.
  static ring_t ring(uint32_t step, uint32_t points, const std::vector<std::pair<uint32_t, double>> &written) {
    ring_t out = {step, points, std::vector<std::pair<uint32_t, double>>(points)};
    for (const auto &[time, value] : written)
      out.slots[(time - written.front().first) / step % points] = {time, value};
    return out;
  }
  std::string bytes(uint32_t aggregation = 1) const {
    std::string out;
    put32(&out, aggregation);
    put32(&out, m_rings.empty() ? 0 : m_rings.back().step * m_rings.back().points);
    put32(&out, 0x3f000000);
    put32(&out, static_cast<uint32_t>(m_rings.size()));
    auto offset = static_cast<uint32_t>(16 + 12 * m_rings.size());
    for (const ring_t &r : m_rings) {
      put32(&out, offset);
      put32(&out, r.step);
      put32(&out, r.points);
      offset += 12 * r.points;
    }
    for (const ring_t &r : m_rings)
      for (uint32_t i = 0; i < r.points; i++) {
        put32(&out, i < r.slots.size() ? r.slots[i].first : 0);
        put64(&out, std::bit_cast<uint64_t>(i < r.slots.size() ? r.slots[i].second : 0.0));
      }
    return out;
  }
  static void write(const std::string &path, const std::string &bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }
  static void put32(std::string *to, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) to->push_back(static_cast<char>(v >> shift));
  }
  static void put64(std::string *to, uint64_t v) {
    put32(to, static_cast<uint32_t>(v >> 32));
    put32(to, static_cast<uint32_t>(v));
  }

 private:
  const std::vector<ring_t> m_rings;
};
