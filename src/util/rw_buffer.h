#pragma once
// A view of writable bytes that are owned elsewhere: the buffer that a parser may put terminators into.

#include <cstdint>

#include "util/mem_reader.h"

struct rw_buffer_t {
  mem_reader_t mem;
};

inline void rw_buffer_init(rw_buffer_t *buffer) {
  mem_reader_init_empty(&buffer->mem);
}
inline void rw_buffer_fill(rw_buffer_t *buffer, char *bytes, size_t size) {
  mem_reader_init_mem(&buffer->mem, bytes, size);
}
inline mem_reader_t rw_buffer_get_reader(const rw_buffer_t *buffer) {
  return buffer->mem;
}
inline char *rw_buffer_get_buffer(const rw_buffer_t *buffer) {
  return const_cast<char *>(buffer->mem.input_buffer);
}

// Overwrites the byte just before the reader's start. False, and nothing is written, unless the reader
// starts inside the buffer (or at its end) and past its first byte.
inline bool rw_buffer_write_preceding_byte(rw_buffer_t *buffer, const mem_reader_t *reader, char byte) {
  const auto start = reinterpret_cast<uintptr_t>(buffer->mem.input_buffer);
  const auto at = reinterpret_cast<uintptr_t>(reader->input_buffer);
  if (at <= start || at - start > buffer->mem.input_buffer_size) return false;
  rw_buffer_get_buffer(buffer)[at - start - 1] = byte;
  return true;
}
