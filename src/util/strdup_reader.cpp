#include "util/strdup_reader.h"

#include <cstdlib>
#include <cstring>

void strdup_reader_init(strdup_reader_t *reader) {
  rw_buffer_init(&reader->to_free);
}

bool strdup_reader_try_fill(strdup_reader_t *reader, const char *string) {
  strdup_reader_cleanup(reader);
  char *copy = strdup(string);
  if (!copy) return false;
  rw_buffer_fill(&reader->to_free, copy, strlen(copy));
  return true;
}

void strdup_reader_cleanup(strdup_reader_t *reader) {
  free(rw_buffer_get_buffer(&reader->to_free));
  rw_buffer_init(&reader->to_free);
}
