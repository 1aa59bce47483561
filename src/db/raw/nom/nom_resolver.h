#pragma once
// Conflict resolution between two measurements of one type.

#include <cmath>
#include <type_traits>
#include <utility>

#include "db/raw/nom/nom_merge.h"

namespace velmar_db_raw_nom {

template <typename T>
auto magnitude(T value) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::fabs(value);
  } else if constexpr (std::is_signed_v<T>) {  // of the most negative number too
    const auto bits = static_cast<std::make_unsigned_t<T>>(value);
    return value < 0 ? static_cast<std::make_unsigned_t<T>>(0 - bits) : bits;
  } else {
    return value;
  }
}

// Does the incoming value replace the kept one? `resolver` is one of the first four.
template <typename T>
bool value_wins(conflict_resolver_e resolver, T incoming, T kept) {
  switch (resolver) {
    case conflict_resolver_e::abs_max:
      return magnitude(incoming) > magnitude(kept);
    case conflict_resolver_e::max:
      return incoming > kept;
    case conflict_resolver_e::abs_min:
      return magnitude(incoming) < magnitude(kept);
    default:
      return incoming < kept;
  }
}

// The same with the words of bits that hold the generations.
template <typename T>
bool incoming_wins(conflict_resolver_e resolver, uint32_t incoming_bits, T incoming, uint32_t kept_bits,
                   T kept) {
  if (resolver == conflict_resolver_e::newest) return true;
  const auto number = static_cast<uint8_t>(resolver);
  if (number >= 4) {
    const uint32_t a = generation_of(incoming_bits), b = generation_of(kept_bits);
    if (a != b) return a > b;
  }
  return value_wins(static_cast<conflict_resolver_e>(number & 3), incoming, kept);
}

}  // namespace velmar_db_raw_nom
