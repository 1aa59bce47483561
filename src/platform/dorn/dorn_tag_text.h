#pragma once
// Encoded text of a tag's category or value: as it stands when all its bytes are plain, else b"<base64>".
// One set of bytes has exactly one canonical encoding, so encoded texts compare instead of the bytes.

#include <sys/types.h>

#include <cstddef>
#include <string_view>

enum class dorn_tag_part_e { category, value };  // a plain value may hold ":"

// All bytes may stand unencoded.
bool dorn_tag_part_is_plain(std::string_view bytes, dorn_tag_part_e part);
inline bool dorn_tag_part_is_encoded(std::string_view text) {
  return text.size() >= 2 && text[0] == 'b' && text[1] == '"';
}

// Length of the encoding of that many bytes, were they not plain.
constexpr size_t dorn_tag_part_b64_len(size_t bytes) {
  return 3 + (bytes + 2) / 3 * 4;
}

// Bytes to canonical text and back. The length written, or -1: no room, or a broken b"..." form
// (base64 with padding and without stray bits is asked for). Text that is not of the b"..." form
// decodes to itself. No terminator is written.
ssize_t dorn_tag_part_encode(std::string_view bytes, dorn_tag_part_e part, char *out, size_t out_size);
ssize_t dorn_tag_part_decode(std::string_view text, char *out, size_t out_size);
