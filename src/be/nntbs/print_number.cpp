#include "be/nntbs/print_number.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

using uint128_t = unsigned __int128;

constexpr int DIGITS = 20;        // of "%.20g"
constexpr int CHUNK_DIGITS = 18;  // a fraction below 2^53 times 10^18 fits in 128 bits

constexpr uint64_t POWERS[] = {1,
                               10,
                               100,
                               1'000,
                               10'000,
                               100'000,
                               1'000'000,
                               10'000'000,
                               100'000'000,
                               1'000'000'000,
                               10'000'000'000,
                               100'000'000'000,
                               1'000'000'000'000,
                               10'000'000'000'000,
                               100'000'000'000'000,
                               1'000'000'000'000'000,
                               10'000'000'000'000'000,
                               100'000'000'000'000'000,
                               1'000'000'000'000'000'000};

struct pairs_t {
  char text[200];
  constexpr pairs_t() : text{} {
    for (int i = 0; i < 100; i++) {
      text[2 * i] = static_cast<char>('0' + i / 10);
      text[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
  }
};
constexpr pairs_t PAIRS;

// value, which is not whole, from 0.0001 up to 2^53. Such a number is a 53-bit integer over 2^k: its digits
// come from multiplying the fraction by a power of ten, exactly, and rounding half to even.
char *print_fraction(char *out, double value) {
  const auto bits = std::bit_cast<uint64_t>(value);
  const uint64_t mantissa = (bits & ((1ULL << 52) - 1)) | 1ULL << 52;
  const int k = 1075 - static_cast<int>(bits >> 52);  // 1 to 66
  uint64_t whole = k <= 52 ? mantissa >> k : 0;
  uint128_t rest = k <= 52 ? mantissa & ((1ULL << k) - 1) : mantissa;
  const uint128_t mask = (uint128_t{1} << k) - 1;
  int width;  // digits behind the point
  if (whole) {
    width = DIGITS;
    for (uint64_t w = whole; w; w /= 10) width--;
  } else {
    // the doubles nearest to these are above them, so that the comparisons are exact
    width = DIGITS + (value < 0.1) + (value < 0.01) + (value < 0.001);
  }
  const int width1 = std::min(width, CHUNK_DIGITS), width2 = width - width1;
  rest *= POWERS[width1];
  auto high = static_cast<uint64_t>(rest >> k);
  rest = (rest & mask) * POWERS[width2];
  auto low = static_cast<uint64_t>(rest >> k);
  rest &= mask;
  const uint128_t half = uint128_t{1} << (k - 1);
  if (rest > half || (rest == half && ((width2 ? low : high) & 1))) {
    if (++low == POWERS[width2]) {
      low = 0;
      high++;
    }
    if (high == POWERS[width1]) {
      high = 0;
      whole++;
    }
  }
  out = print_uint64(out, whole);
  *out++ = '.';
  out = print_padded(out, high, width1);
  out = print_padded(out, low, width2);
  while (out[-1] == '0') out--;
  return out;
}

}  // namespace

char *print_int64(char *out, int64_t value) {
  return std::to_chars(out, out + PRINT_NUMBER_MAX, value).ptr;
}
char *print_uint64(char *out, uint64_t value) {
  return std::to_chars(out, out + PRINT_NUMBER_MAX, value).ptr;
}

char *print_padded(char *out, uint64_t value, int width) {
  char *const end = out + width;
  char *at = end;
  for (; at - out >= 2; value /= 100) {
    at -= 2;
    memcpy(at, &PAIRS.text[2 * (value % 100)], 2);
  }
  if (at != out) *out = static_cast<char>('0' + value % 10);
  return end;
}

char *print_double(char *out, double value) {
  if (!std::isfinite(value)) {
    memcpy(out, "null", 4);
    return out + 4;
  }
  const double size = std::fabs(value);
  if (size < 0x1p64 && (size >= 0x1p53 || size == static_cast<double>(static_cast<uint64_t>(size)))) {
    if (std::signbit(value)) *out++ = '-';
    return print_uint64(out, static_cast<uint64_t>(size));
  }
  if (size >= 0.0001 && size < 0x1p53) {
    if (value < 0) *out++ = '-';
    return print_fraction(out, size);
  }
  return out + snprintf(out, PRINT_NUMBER_MAX, "%.20g", value);
}
