#pragma once
// What both kinds of data file are asked when they are opened. For this room's sources only.

#include <algorithm>

#include "db/surrogate3/codec/fbs_layout.h"
#include "db/surrogate3/codec/surrogate_codec_factory.h"

namespace db::surrogate3 {

constexpr size_t FILE_HEAD_SIZE = 16;         // root offset, identifier, padding
constexpr uint64_t ROOT_OFFSET_LIMIT = 4096;  // the root table comes right behind the head

// The root table, or the reason why there is none.
template <typename Root>
const Root *open_root(const checked_file_c &file, decode_error_e *error) {
  *error = decode_error_e::cut_short;
  const uint8_t *data = file.data();
  if (file.size() < FILE_HEAD_SIZE) return nullptr;
  if (std::all_of(data, data + FILE_HEAD_SIZE, [](uint8_t byte) { return byte == 0; })) return nullptr;
  if (!fb64::BufferHasIdentifier(data, DATA_FILE_IDENTIFIER)) {
    *error = fb64::BufferHasIdentifier(data, "FSC1") ? decode_error_e::older_format : decode_error_e::damaged;
    return nullptr;
  }
  const auto root_offset = fb64::ReadScalar<fb64::uoffset_t>(data);
  const Root *root = file.root<Root>();
  if (!root && (file.size() >= ROOT_OFFSET_LIMIT || root_offset >= ROOT_OFFSET_LIMIT))
    *error = decode_error_e::damaged;
  return root;
}

// The vector that ends every file as we write it: the ids' search layout, of at least one position. Does it
// reach beyond the end?
inline bool is_cut_short(const checked_file_c &file, const void *root, fb64::voffset_t tree_slot) {
  const fb64::voffset_t at = static_cast<const fb64::Table *>(root)->GetOptionalFieldOffset(tree_slot);
  if (at == 0) return false;
  const size_t field = static_cast<size_t>(static_cast<const uint8_t *>(root) - file.data()) + at;
  if (field + sizeof(uint64_t) > file.size()) return true;
  const uint64_t place = field + fb64::ReadScalar<fb64::uoffset_t>(file.data() + field);
  if (place % sizeof(uint64_t) != 0 || place < field) return false;
  if (place > file.size() || file.size() - place < sizeof(uint64_t)) return true;
  const auto length = fb64::ReadScalar<uint64_t>(file.data() + place);
  const uint64_t room = (file.size() - place) / sizeof(uint64_t) - 1;
  return length == 0 || length > room;
}

}  // namespace db::surrogate3
