// Copies of values that own memory.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/krel/base/krel_log.h"
#include "util/histogram_entries.h"
#include "util/raw_record.h"

dorn_record_bytes_t *dorn_record_bytes_alloc(const void *bytes, size_t length) {
  auto *block = static_cast<dorn_record_bytes_t *>(malloc(sizeof(dorn_record_bytes_t) + length));
  if (!block) krel_fatal("out of memory for a value of %zu bytes\n", length);
  *block = {length, block + 1};
  if (length > 0) memcpy(block + 1, bytes, length);
  return block;
}

static char *string_dup(const char *text) {
  char *copy = strdup(text);
  if (!copy) krel_fatal("out of memory for a text value\n");
  return copy;
}

void dorn_record_data_dup(dorn_record_m_value_t *to, const dorn_record_m_value_t *from) {
  const dorn_record_m_storage_t storage = from->storage;
  *to = *from;
  if (from->is_null) {
    to->storage = {};
    return;
  }
  switch (from->type) {
    case VELMAR_METRIC_STRING:
      to->storage.v_string = storage.v_string ? string_dup(storage.v_string) : nullptr;
      break;
    case VELMAR_METRIC_HISTOGRAM:
    case VELMAR_METRIC_HISTOGRAM_CUMULATIVE:
      if (storage.v_bytes)
        to->storage.v_bytes = dorn_record_bytes_alloc(storage.v_bytes->bytes, storage.v_bytes->length);
      break;
    case VELMAR_METRIC_HISTOGRAM_ENTRY:
    case VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY:
      if (storage.v_histogram)
        to->storage.v_histogram = std::make_unique<histogram_entries_t>(*storage.v_histogram).release();
      break;
    default:
      break;
  }
}

void dorn_record_data_release(dorn_record_m_value_t *value) {
  if (value->is_null) return;
  switch (value->type) {
    case VELMAR_METRIC_STRING:
      free(value->storage.v_string);
      break;
    case VELMAR_METRIC_HISTOGRAM:
    case VELMAR_METRIC_HISTOGRAM_CUMULATIVE:
      free(value->storage.v_bytes);
      break;
    case VELMAR_METRIC_HISTOGRAM_ENTRY:
    case VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY:
      std::unique_ptr<histogram_entries_t>(value->storage.v_histogram).reset();
      break;
    default:
      return;
  }
  value->storage = {};
}
