#include "platform/dorn/dorn_chars.h"

#include <cstring>

namespace {

constexpr uint64_t every_byte = 0x0101010101010101u;
constexpr uint64_t top_bits = every_byte * 0x80;

uint64_t load_word(const char *at) {
  uint64_t word;
  memcpy(&word, at, sizeof word);
  return word;
}

// Nonzero when some byte of the word is not in 0x20..0x7e.
uint64_t unusual_bytes(uint64_t word) {
  const uint64_t not_del = word ^ (every_byte * 0x7f);
  const uint64_t below_blank = (word - every_byte * 0x20) & ~word;
  const uint64_t is_del = (not_del - every_byte) & ~not_del;
  return (word | below_blank | is_del) & top_bits;
}

}  // namespace

size_t dorn_utf8_len(std::string_view text, size_t at) {
  const auto byte = [&](size_t k) { return at + k < text.size() ? static_cast<uint8_t>(text[at + k]) : 0; };
  const auto follows = [&](size_t k) { return (byte(k) & 0xc0) == 0x80; };
  const uint8_t first = byte(0);
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4 || !follows(1)) return 0;
  if (first < 0xe0) return 2;
  const uint8_t second = byte(1);
  if (!follows(2)) return 0;
  if (first < 0xf0) {
    if (first == 0xe0 && second < 0xa0) return 0;  // over-long
    if (first == 0xed && second > 0x9f) return 0;  // surrogates
    return 3;
  }
  if (!follows(3) || (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f)) return 0;
  return 4;
}

bool dorn_is_utf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    if (i + 8 <= text.size() && !(load_word(text.data() + i) & top_bits)) {
      i += 8;
      continue;
    }
    const size_t len = dorn_utf8_len(text, i);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

bool dorn_is_clean_utf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    if (i + 8 <= text.size() && !unusual_bytes(load_word(text.data() + i))) {
      i += 8;
      continue;
    }
    const auto first = static_cast<uint8_t>(text[i]);
    if (first < 0x20 || first == 0x7f) return false;
    const size_t len = dorn_utf8_len(text, i);
    if (len == 0 || (first == 0xc2 && static_cast<uint8_t>(text[i + 1]) < 0xa0)) return false;
    i += len;
  }
  return true;
}
