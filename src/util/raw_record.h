#pragma once
// One sample on its way through the node, and the tab-separated text lines that samples arrive in:
//   M  time  check name`check uuid  metric name  type letter  value
// Parsers look into the caller's buffer, put terminators there, and allocate nothing. They refuse bad input
// by their result, never abort, and a changed line cannot be parsed again.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "util/mem_reader.h"
#include "util/metric_type.h"
#include "util/rw_buffer.h"

struct histogram_entries_t;

struct dorn_record_bytes_t {
  size_t length;
  const void *bytes;
};
static_assert(sizeof(dorn_record_bytes_t) == 16);

union dorn_record_m_storage_t {
  velmar_metric_locator_numeric_value_t v_numeric;  // any of the five numbers
  int32_t v_int32;
  uint32_t v_uint32;
  int64_t v_int64;
  uint64_t v_uint64;
  double v_double;
  char *v_string;                    // terminated
  dorn_record_bytes_t *v_bytes;      // of 'h' and 'H'
  histogram_entries_t *v_histogram;  // of the two entry kinds
};

// A plain structure: who owns the storage of strings, bytes and entries is the holder's to know.
struct dorn_record_m_value_t {
  velmar_metric_type_t type;
  bool is_null;  // then there is no storage
  dorn_record_m_storage_t storage;
};
static_assert(sizeof(dorn_record_m_value_t) == 16);

struct dorn_record_m_t {
  uint64_t whence_ms;
  mem_reader_t check_name_buf;   // without the uuid and its backquote; terminated
  mem_reader_t metric_name_buf;  // terminated
  uint32_t account_id;           // 0: the check field names none
  uint8_t check_uuid[16];
  dorn_record_m_value_t value;  // a string looks into the line
};

enum dorn_record_type_e : uint8_t {
  DORN_RECORD_TYPE_C = 1,
  DORN_RECORD_TYPE_S = 2,
  DORN_RECORD_TYPE_M = 3,
  DORN_RECORD_TYPE_B1 = 4,
  DORN_RECORD_TYPE_B2 = 5,
  DORN_RECORD_TYPE_H1 = 6,
  DORN_RECORD_TYPE_H2 = 7,
  DORN_RECORD_TYPE_UNKNOWN = 255,
};
dorn_record_type_e dorn_record_type_lookup(std::string_view text);

// The kind of that letter ('0' included), or VELMAR_METRIC_ABSENT.
velmar_metric_type_t dorn_metric_type_lookup(char letter);

// ---- lines and fields. `buffer` holds what the readers look into.
// Cuts the next line off the chunk and puts a terminator over its newline; false when no newline is left.
bool dorn_record_get_next_line(rw_buffer_t *buffer, mem_reader_t *chunk, mem_reader_t *line);
// Cuts the input at its next tab, puts a terminator over it and sets *rest; null when there is no tab.
char *dorn_record_get_next_field(rw_buffer_t *buffer, const mem_reader_t *input, mem_reader_t *rest);

// The fields of a line behind its record type, found without changing it.
struct dorn_record_fields_t {
  mem_reader_t time;
  mem_reader_t identity;  // check field, a tab and the metric name in one: what a cache of metrics is asked by
  mem_reader_t check;
  mem_reader_t name;
  mem_reader_t type;   // M lines
  mem_reader_t value;  // to the end of the line
};
// For "M" and for "H1" and "H2" lines (which have no type field). False: too few fields, or a zero byte inside.
bool dorn_record_split_m(const mem_reader_t *input, dorn_record_fields_t *fields);
bool dorn_record_split_h(const mem_reader_t *input, dorn_record_fields_t *fields);

// ---- fields
// Seconds since the epoch, with a fraction behind a dot if any; what follows is not looked at. False without a
// digit at the start. A time beyond 64 bits of milliseconds gives the largest number.
bool dorn_record_parse_m_timestamp(std::string_view text, uint64_t *whence_ms);
// The check field: the uuid, the name before it and the account that its last part ("c_<number>...") names.
bool dorn_record_parse_check(const mem_reader_t *check, mem_reader_t *check_name, uint8_t uuid[16],
                             uint32_t *account_id);
// A type field and a value field. A string is kept as a pointer: a terminator must follow the text.
bool dorn_record_value_from_fields(std::string_view type, const mem_reader_t *text,
                                   dorn_record_m_value_t *value);

// ---- whole records: `input` is the line behind its record type, cut by dorn_record_get_next_line
bool dorn_record_parse_m_value(rw_buffer_t *buffer, const mem_reader_t *input, dorn_record_m_value_t *value);
bool dorn_record_parse_m(rw_buffer_t *buffer, const mem_reader_t *input, dorn_record_m_t *out);

// ---- copies
// A deep copy; numbers and nulls need no memory. What it made is given back with release.
void dorn_record_data_dup(dorn_record_m_value_t *to, const dorn_record_m_value_t *from);
// A byte block of its own for 'h' and 'H' values; goes with dorn_record_data_release.
dorn_record_bytes_t *dorn_record_bytes_alloc(const void *bytes, size_t length);
void dorn_record_data_release(dorn_record_m_value_t *value);
