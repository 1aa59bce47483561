#pragma once
// The 64-bit hash of byte ranges that files on disk are laid out by: fixed seed, little-endian loads, the
// same on every machine. Not for untrusted keys in memory where collisions could be forced.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace util {

namespace wyhash_detail {

constexpr uint64_t S0 = 0xa0761d6478bd642f, S1 = 0xe7037ed1a0b428db, S2 = 0x8ebc6af09c88c6e3,
                   S3 = 0x589965cc75374cc3;

inline uint64_t fold(uint64_t x, uint64_t y) {
  const auto product = static_cast<unsigned __int128>(x) * y;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}
inline uint64_t u64(const uint8_t *p) {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return v;
}
inline uint64_t u32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

}  // namespace wyhash_detail

inline uint64_t wyhash(const void *bytes, size_t size) {
  using namespace wyhash_detail;
  const auto *p = static_cast<const uint8_t *>(bytes);
  uint64_t s = S0, a = 0, b = 0;
  if (size <= 16) {
    if (size >= 4) {
      const size_t k = (size >> 3) << 2;
      a = u32(p) << 32 | u32(p + k);
      b = u32(p + size - 4) << 32 | u32(p + size - 4 - k);
    } else if (size > 0) {
      a = static_cast<uint64_t>(p[0]) << 16 | static_cast<uint64_t>(p[size >> 1]) << 8 | p[size - 1];
    }
  } else {
    size_t left = size;
    if (left > 48) {
      uint64_t t = s, u = s;
      do {
        s = fold(u64(p) ^ S1, u64(p + 8) ^ s);
        t = fold(u64(p + 16) ^ S2, u64(p + 24) ^ t);
        u = fold(u64(p + 32) ^ S3, u64(p + 40) ^ u);
        p += 48;
        left -= 48;
      } while (left > 48);
      s ^= t ^ u;
    }
    while (left > 16) {
      s = fold(u64(p) ^ S1, u64(p + 8) ^ s);
      p += 16;
      left -= 16;
    }
    a = u64(p + left - 16);
    b = u64(p + left - 8);
  }
  return fold(S1 ^ size, fold(a ^ S1, b ^ s));
}

inline uint64_t wyhash(std::string_view text) {
  return wyhash(text.data(), text.size());
}

}  // namespace util
