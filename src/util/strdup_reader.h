#pragma once
// A string of one's own, kept as a buffer. init before use, cleanup at the end.

#include "util/rw_buffer.h"

struct strdup_reader_t {
  rw_buffer_t to_free;
};

void strdup_reader_init(strdup_reader_t *reader);
// Frees what was held and keeps a copy of the terminated string. False when memory is out.
bool strdup_reader_try_fill(strdup_reader_t *reader, const char *string);
void strdup_reader_cleanup(strdup_reader_t *reader);
// The string, terminated; null when none is held.
inline char *strdup_reader_get_buffer(const strdup_reader_t *reader) {
  return rw_buffer_get_buffer(&reader->to_free);
}
