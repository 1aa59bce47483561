#pragma once
// The text form of UUIDs without terminators, fast: one stands in every line and one is hashed per metric.

#include <array>
#include <cstddef>
#include <cstdint>

constexpr size_t UUID_TEXT_SIZE = 36;

namespace uuid_text_detail {

constexpr auto hex_values = [] {
  std::array<uint8_t, 256> values{};
  for (auto &v : values) v = 0x80;
  for (uint8_t i = 0; i < 10; i++) values['0' + i] = i;
  for (uint8_t i = 0; i < 6; i++) values['a' + i] = values['A' + i] = static_cast<uint8_t>(10 + i);
  return values;
}();
// Where the two digits of each byte stand.
constexpr uint8_t positions[16] = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};

}  // namespace uuid_text_detail

// Reads exactly 36 characters, digits of any case. False when they are no uuid; `out` is then worthless.
inline bool uuid_text_parse(const char *text, uint8_t out[16]) {
  using namespace uuid_text_detail;
  uint8_t bad = 0;
  for (size_t i = 0; i < 16; i++) {
    const uint8_t high = hex_values[static_cast<uint8_t>(text[positions[i]])];
    const uint8_t low = hex_values[static_cast<uint8_t>(text[positions[i] + 1])];
    bad |= high | low;
    out[i] = static_cast<uint8_t>(high << 4 | (low & 15));
  }
  return !(bad & 0x80) && text[8] == '-' && text[13] == '-' && text[18] == '-' && text[23] == '-';
}

// Writes the 36 lower-case characters, no terminator.
inline void uuid_text_print(const uint8_t uuid[16], char *out) {
  for (size_t i = 0; i < 16; i++) {
    out[uuid_text_detail::positions[i]] = "0123456789abcdef"[uuid[i] >> 4];
    out[uuid_text_detail::positions[i] + 1] = "0123456789abcdef"[uuid[i] & 15];
  }
  out[8] = out[13] = out[18] = out[23] = '-';
}
