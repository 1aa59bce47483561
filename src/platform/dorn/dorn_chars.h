#pragma once
// Bytes of names, tags and searches: the sets they may come from, UTF-8, base64. For this library only.

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr uint8_t DORN_CHAR_CATEGORY = 1;  // plain in a tag's category
constexpr uint8_t DORN_CHAR_VALUE = 2;     // plain in a tag's value
constexpr uint8_t DORN_CHAR_SEARCH = 4;    // may stand in a plain variable or keyword of a search

constexpr std::array<uint8_t, 256> dorn_char_classes = [] {
  std::array<uint8_t, 256> classes{};
  const auto add = [&](std::string_view chars, uint8_t bits) {
    for (const char c : chars) classes[static_cast<uint8_t>(c)] |= bits;
  };
  add("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789`+!@#$%^&'/?._-;=~<>\\",
      DORN_CHAR_CATEGORY | DORN_CHAR_VALUE);
  add(":", DORN_CHAR_VALUE);
  for (int c = 0x21; c < 256; c++) {
    if (c != 0x7f && c != ',' && c != '(' && c != ')' && c != '"')
      classes[static_cast<size_t>(c)] |= DORN_CHAR_SEARCH;
  }
  return classes;
}();

inline bool dorn_char_is(char c, uint8_t bits) {
  return dorn_char_classes[static_cast<uint8_t>(c)] & bits;
}

// Bytes of the character at text[at], 1 to 4, or 0 when no well-formed one stands there.
size_t dorn_utf8_len(std::string_view text, size_t at);
bool dorn_is_utf8(std::string_view text);
// UTF-8 without control characters (C0, DEL, C1).
bool dorn_is_clean_utf8(std::string_view text);

// Writes (size + 2) / 3 * 4 digits and gives that number.
size_t dorn_b64_encode(std::string_view bytes, char *out);
// Bytes written, or -1: missing padding, stray bits, foreign characters, or no room.
ssize_t dorn_b64_decode(std::string_view text, char *out, size_t out_size);
