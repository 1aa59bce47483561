#include "util/mem_reader.h"

#include <cstring>

static size_t pos_after(const mem_reader_t *reader, const void *hit, mem_reader_t *rest) {
  if (!hit) return reader->input_buffer_size + 1;
  const size_t pos = static_cast<size_t>(static_cast<const char *>(hit) - reader->input_buffer) + 1;
  *rest = {reader->input_buffer + pos, reader->input_buffer_size - pos};
  return pos;
}

size_t mem_reader_find_pos_after_sep(const mem_reader_t *reader, char separator, mem_reader_t *rest) {
  if (reader->input_buffer_size == 0) return 0;
  return pos_after(reader, memchr(reader->input_buffer, separator, reader->input_buffer_size), rest);
}

size_t mem_reader_find_pos_after_sep_from_end(const mem_reader_t *reader, char separator, mem_reader_t *rest) {
  if (reader->input_buffer_size == 0) return 0;
  return pos_after(reader, memrchr(reader->input_buffer, separator, reader->input_buffer_size), rest);
}

bool mem_reader_advance_if_match(mem_reader_t *reader, std::string_view text) {
  if (!mem_reader_view(*reader).starts_with(text)) return false;
  return mem_reader_try_advance(reader, text.size());
}
