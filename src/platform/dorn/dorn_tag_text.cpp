#include "platform/dorn/dorn_tag_text.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/dorn/dorn_chars.h"

namespace {

constexpr char b64_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> b64_values = [] {
  std::array<int8_t, 256> values{};
  values.fill(-1);
  for (int i = 0; i < 64; i++) values[static_cast<uint8_t>(b64_alphabet[i])] = static_cast<int8_t>(i);
  return values;
}();

}  // namespace

size_t dorn_b64_encode(std::string_view bytes, char *out) {
  const char *begin = out;
  size_t i = 0;
  const auto at = [&](size_t k) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[k])); };
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t group = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
    *out++ = b64_alphabet[group >> 18];
    *out++ = b64_alphabet[group >> 12 & 63];
    *out++ = b64_alphabet[group >> 6 & 63];
    *out++ = b64_alphabet[group & 63];
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    const uint32_t group = at(i) << 16 | (rest == 2 ? at(i + 1) << 8 : 0);
    *out++ = b64_alphabet[group >> 18];
    *out++ = b64_alphabet[group >> 12 & 63];
    *out++ = rest == 2 ? b64_alphabet[group >> 6 & 63] : '=';
    *out++ = '=';
  }
  return static_cast<size_t>(out - begin);
}

ssize_t dorn_b64_decode(std::string_view text, char *out, size_t out_size) {
  if (text.size() % 4 != 0) return -1;
  if (text.empty()) return 0;
  const size_t padding = text[text.size() - 1] != '=' ? 0 : text[text.size() - 2] != '=' ? 1 : 2;
  const size_t length = text.size() / 4 * 3 - padding;
  if (length > out_size) return -1;
  size_t written = 0;
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const size_t digits = last ? 4 - padding : 4;
    int32_t group = 0;
    int32_t bad = 0;
    for (size_t k = 0; k < 4; k++) {
      const int32_t value = k < digits ? b64_values[static_cast<uint8_t>(text[i + k])] : 0;
      bad |= value;
      group = static_cast<int32_t>(static_cast<uint32_t>(group) << 6 | (static_cast<uint32_t>(value) & 63));
    }
    if (bad < 0) return -1;
    if (last && padding > 0 && (group & ((1 << (8 * padding)) - 1)) != 0) return -1;  // stray bits
    out[written++] = static_cast<char>(group >> 16);
    if (digits > 2) out[written++] = static_cast<char>(group >> 8);
    if (digits > 3) out[written++] = static_cast<char>(group);
  }
  return static_cast<ssize_t>(written);
}

bool dorn_tag_part_is_plain(std::string_view bytes, dorn_tag_part_e part) {
  const uint8_t wanted = part == dorn_tag_part_e::category ? DORN_CHAR_CATEGORY : DORN_CHAR_VALUE;
  for (const char c : bytes) {
    if (!dorn_char_is(c, wanted)) return false;
  }
  return true;
}

ssize_t dorn_tag_part_encode(std::string_view bytes, dorn_tag_part_e part, char *out, size_t out_size) {
  if (dorn_tag_part_is_plain(bytes, part)) {
    if (bytes.size() > out_size) return -1;
    if (!bytes.empty()) memcpy(out, bytes.data(), bytes.size());
    return static_cast<ssize_t>(bytes.size());
  }
  if (dorn_tag_part_b64_len(bytes.size()) > out_size) return -1;
  out[0] = 'b';
  out[1] = '"';
  const size_t digits = dorn_b64_encode(bytes, out + 2);
  out[2 + digits] = '"';
  return static_cast<ssize_t>(digits + 3);
}

ssize_t dorn_tag_part_decode(std::string_view text, char *out, size_t out_size) {
  if (dorn_tag_part_is_encoded(text)) {
    if (text.size() < 3 || text.back() != '"') return -1;
    return dorn_b64_decode(text.substr(2, text.size() - 3), out, out_size);
  }
  if (text.size() > out_size) return -1;
  if (!text.empty()) memcpy(out, text.data(), text.size());
  return static_cast<ssize_t>(text.size());
}
