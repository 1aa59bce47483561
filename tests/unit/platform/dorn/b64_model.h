#pragma once
// Base64 by bit strings, and the encoded form of a tag's part: to compare with.

#include <bitset>
#include <string>

inline std::string model_b64(const std::string &bytes) {
  std::string bits, digits;
  for (const char c : bytes) bits += std::bitset<8>(static_cast<unsigned char>(c)).to_string();
  while (bits.size() % 6) bits += '0';
  for (size_t i = 0; i < bits.size(); i += 6) {
    digits +=
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[std::bitset<6>(bits.substr(i, 6))
                                                                               .to_ulong()];
  }
  while (digits.size() % 4) digits += '=';
  return digits;
}

inline std::string model_encoded(const std::string &bytes) {
  return "b\"" + model_b64(bytes) + "\"";
}
