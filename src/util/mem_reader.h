#pragma once
// A view of bytes that are owned elsewhere: what parsers pass around. Copying one copies no bytes.

#include <cstddef>
#include <string_view>

struct mem_reader_t {
  const char *input_buffer = nullptr;
  size_t input_buffer_size = 0;
};

inline void mem_reader_init_empty(mem_reader_t *reader) {
  *reader = {};
}
inline void mem_reader_init_mem(mem_reader_t *reader, const char *bytes, size_t size) {
  *reader = {bytes, size};
}
inline const char *mem_reader_get_buffer(const mem_reader_t *reader) {
  return reader->input_buffer;
}
inline size_t mem_reader_get_buffer_size(const mem_reader_t *reader) {
  return reader->input_buffer_size;
}
inline std::string_view mem_reader_view(const mem_reader_t &reader) {
  return {reader.input_buffer, reader.input_buffer_size};
}

// Drop `count` bytes at the start or at the end. False, and nothing changes, when there are fewer.
inline bool mem_reader_try_advance(mem_reader_t *reader, size_t count) {
  if (count > reader->input_buffer_size) return false;
  reader->input_buffer += count;
  reader->input_buffer_size -= count;
  return true;
}
inline bool mem_reader_try_truncate(mem_reader_t *reader, size_t count) {
  if (count > reader->input_buffer_size) return false;
  reader->input_buffer_size -= count;
  return true;
}
// Keeps at most the first `size` bytes.
inline void mem_reader_truncate_to(mem_reader_t *reader, size_t size) {
  if (size < reader->input_buffer_size) reader->input_buffer_size = size;
}

// Finds the first (from_end: the last) separator. Found at offset p: *rest becomes what follows it, the result
// is p + 1. Not found: the result is the size plus 1 and *rest stays. An empty input gives 0.
size_t mem_reader_find_pos_after_sep(const mem_reader_t *reader, char separator, mem_reader_t *rest);
size_t mem_reader_find_pos_after_sep_from_end(const mem_reader_t *reader, char separator, mem_reader_t *rest);

// Drops `text` from the start when the input begins with it.
bool mem_reader_advance_if_match(mem_reader_t *reader, std::string_view text);
