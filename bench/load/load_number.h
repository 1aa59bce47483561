#pragma once
// Numbers as text, written at `at`; each gives the place behind what it wrote.

#include <charconv>
#include <cstdint>

inline char *put_number(char *at, int64_t value) {
  return std::to_chars(at, at + 24, value).ptr;
}

// A gauge in hundredths.
inline char *put_hundredths(char *at, int64_t value) {
  if (value < 0) {
    *at++ = '-';
    value = -value;
  }
  at = put_number(at, value / 100);
  *at++ = '.';
  *at++ = static_cast<char>('0' + value / 10 % 10);
  *at++ = static_cast<char>('0' + value % 10);
  return at;
}

// Seconds, with a fraction where there is one.
inline char *put_time(char *at, uint64_t ms) {
  at = put_number(at, static_cast<int64_t>(ms / 1000));
  if (ms % 1000 == 0) return at;
  *at++ = '.';
  for (const uint64_t digit : {ms / 100 % 10, ms / 10 % 10, ms % 10}) *at++ = static_cast<char>('0' + digit);
  return at;
}
