#include "util/raw_record.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>

#include "util/raw_record_number.h"
#include "util/uuid_text.h"

dorn_record_type_e dorn_record_type_lookup(std::string_view text) {
  if (text == "M") return DORN_RECORD_TYPE_M;
  if (text == "H1") return DORN_RECORD_TYPE_H1;
  if (text == "H2") return DORN_RECORD_TYPE_H2;
  if (text == "C") return DORN_RECORD_TYPE_C;
  if (text == "S") return DORN_RECORD_TYPE_S;
  if (text == "B1") return DORN_RECORD_TYPE_B1;
  if (text == "B2") return DORN_RECORD_TYPE_B2;
  return DORN_RECORD_TYPE_UNKNOWN;
}

velmar_metric_type_t dorn_metric_type_lookup(char letter) {
  switch (letter) {
    case VELMAR_METRIC_GUESS:
    case VELMAR_METRIC_INT32:
    case VELMAR_METRIC_UINT32:
    case VELMAR_METRIC_INT64:
    case VELMAR_METRIC_UINT64:
    case VELMAR_METRIC_DOUBLE:
    case VELMAR_METRIC_STRING:
    case VELMAR_METRIC_HISTOGRAM:
    case VELMAR_METRIC_HISTOGRAM_CUMULATIVE:
      return static_cast<velmar_metric_type_t>(letter);
    default:
      return VELMAR_METRIC_ABSENT;
  }
}

// Cuts the input at its first separator: the part before it, and what follows.
static bool cut(mem_reader_t *input, char separator, mem_reader_t *field) {
  mem_reader_t rest;
  const size_t pos = mem_reader_find_pos_after_sep(input, separator, &rest);
  if (pos == 0 || pos > input->input_buffer_size) return false;
  *field = {input->input_buffer, pos - 1};
  *input = rest;
  return true;
}

bool dorn_record_get_next_line(rw_buffer_t *buffer, mem_reader_t *chunk, mem_reader_t *line) {
  if (!cut(chunk, '\n', line)) return false;
  rw_buffer_write_preceding_byte(buffer, chunk, 0);
  return true;
}

char *dorn_record_get_next_field(rw_buffer_t *buffer, const mem_reader_t *input, mem_reader_t *rest) {
  mem_reader_t left = *input, field;
  if (!cut(&left, '\t', &field)) return nullptr;
  if (!rw_buffer_write_preceding_byte(buffer, &left, 0)) return nullptr;
  *rest = left;
  return const_cast<char *>(field.input_buffer);
}

static bool split(const mem_reader_t *input, bool has_type, dorn_record_fields_t *fields) {
  mem_reader_t left = *input;
  if (!cut(&left, '\t', &fields->time) || !cut(&left, '\t', &fields->check) || !cut(&left, '\t', &fields->name))
    return false;
  fields->type = {};
  if (has_type && !cut(&left, '\t', &fields->type)) return false;
  fields->value = left;
  const char *start = fields->check.input_buffer;
  const char *stop = fields->name.input_buffer + fields->name.input_buffer_size;
  fields->identity = {start, static_cast<size_t>(stop - start)};
  return memchr(input->input_buffer, 0, input->input_buffer_size) == nullptr;
}

bool dorn_record_split_m(const mem_reader_t *input, dorn_record_fields_t *fields) {
  return split(input, true, fields);
}

bool dorn_record_split_h(const mem_reader_t *input, dorn_record_fields_t *fields) {
  return split(input, false, fields);
}

// Milliseconds of the fraction at the start of the text, which begins with the dot.
static uint64_t fraction_ms(std::string_view text) {
  static constexpr double power[] = {1,   1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                     1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  uint64_t digits = 0;
  size_t count = 0;
  while (count + 1 < text.size() && count < 15 && text[count + 1] >= '0' && text[count + 1] <= '9')
    digits = digits * 10 + static_cast<uint64_t>(text[++count] - '0');
  double fraction = static_cast<double>(digits) / power[count];  // both exact, so rounded as a parser would
  const char next = count + 1 < text.size() ? text[count + 1] : '\0';
  if ((next >= '0' && next <= '9') || next == 'e' || next == 'E') {
    fraction = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), fraction);
    if (error == std::errc::result_out_of_range &&
        !stringtod(text.substr(0, static_cast<size_t>(end - text.data())), &fraction))
      return UINT64_MAX;
  }
  fraction *= 1000;
  return fraction >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(fraction);
}

bool dorn_record_parse_m_timestamp(std::string_view text, uint64_t *whence_ms) {
  const char *end;
  const uint64_t seconds = stringtoull(text.data(), text.size(), &end);
  if (end == text.data()) return false;
  const std::string_view rest = text.substr(static_cast<size_t>(end - text.data()));
  const uint64_t fraction = rest.starts_with('.') ? fraction_ms(rest) : 0;
  if (__builtin_mul_overflow(seconds, uint64_t{1000}, whence_ms) ||
      __builtin_add_overflow(*whence_ms, fraction, whence_ms))
    *whence_ms = UINT64_MAX;
  return true;
}

bool dorn_record_parse_check(const mem_reader_t *check, mem_reader_t *check_name, uint8_t uuid[16],
                             uint32_t *account_id) {
  if (check->input_buffer_size < UUID_TEXT_SIZE + 1) return false;
  *check_name = *check;
  mem_reader_try_truncate(check_name, UUID_TEXT_SIZE + 1);
  if (!uuid_text_parse(check_name->input_buffer + check_name->input_buffer_size + 1, uuid)) return false;

  *account_id = 0;
  mem_reader_t last;
  const size_t pos = mem_reader_find_pos_after_sep_from_end(check_name, '`', &last);
  if (pos == 0 || pos > check_name->input_buffer_size || !mem_reader_advance_if_match(&last, "c_")) return true;
  const char *end;
  const unsigned long long account = stringtoull(last.input_buffer, last.input_buffer_size, &end);
  *account_id = static_cast<uint32_t>(account);
  return account <= INT32_MAX;
}

// The whole text as an integer of 64 bits.
static bool signed_value(const mem_reader_t *text, int64_t *value) {
  const char *end;
  *value = stringtoll(text->input_buffer, text->input_buffer_size, &end);
  return end == text->input_buffer + text->input_buffer_size;
}
static bool unsigned_value(const mem_reader_t *text, uint64_t *value) {
  const char *end;
  *value = stringtoull(text->input_buffer, text->input_buffer_size, &end);
  return end == text->input_buffer + text->input_buffer_size;
}

bool dorn_record_value_from_fields(std::string_view type, const mem_reader_t *text,
                                   dorn_record_m_value_t *value) {
  *value = {};
  if (type.size() != 1) return false;
  value->type = dorn_metric_type_lookup(type[0]);
  if (value->type == VELMAR_METRIC_ABSENT) return false;
  value->is_null = mem_reader_view(*text) == "[[null]]";
  if (value->is_null) return true;
  if (text->input_buffer_size == 0 && value->type != VELMAR_METRIC_STRING) return false;

  int64_t wide_signed;
  uint64_t wide;
  switch (value->type) {
    case VELMAR_METRIC_INT32:  // a 32-bit value keeps the low half
      if (!signed_value(text, &wide_signed)) return false;
      value->storage.v_int32 = static_cast<int32_t>(wide_signed);
      return true;
    case VELMAR_METRIC_INT64:
      return signed_value(text, &value->storage.v_int64);
    case VELMAR_METRIC_UINT32:
      if (!unsigned_value(text, &wide)) return false;
      value->storage.v_uint32 = static_cast<uint32_t>(wide);
      return true;
    case VELMAR_METRIC_UINT64:
      return unsigned_value(text, &value->storage.v_uint64);
    case VELMAR_METRIC_DOUBLE:
      return stringtod(mem_reader_view(*text), &value->storage.v_double);
    case VELMAR_METRIC_STRING:
      value->storage.v_string = const_cast<char *>(text->input_buffer);
      return true;
    default:
      return false;
  }
}

bool dorn_record_parse_m_value(rw_buffer_t *buffer, const mem_reader_t *input, dorn_record_m_value_t *value) {
  mem_reader_t text;
  const char *type = dorn_record_get_next_field(buffer, input, &text);
  return type && dorn_record_value_from_fields(type, &text, value);
}

// Everything is read before anything is written, so that a refused line can still be shown.
bool dorn_record_parse_m(rw_buffer_t *buffer, const mem_reader_t *input, dorn_record_m_t *out) {
  dorn_record_fields_t fields;
  if (!dorn_record_split_m(input, &fields)) return false;
  if (!dorn_record_parse_m_timestamp(mem_reader_view(fields.time), &out->whence_ms)) return false;
  if (!dorn_record_parse_check(&fields.check, &out->check_name_buf, out->check_uuid, &out->account_id))
    return false;
  if (!dorn_record_value_from_fields(mem_reader_view(fields.type), &fields.value, &out->value)) return false;
  out->metric_name_buf = fields.name;
  const mem_reader_t uuid_text = {fields.check.input_buffer + fields.check.input_buffer_size - UUID_TEXT_SIZE,
                                  UUID_TEXT_SIZE};
  return rw_buffer_write_preceding_byte(buffer, &uuid_text, 0) &&
         rw_buffer_write_preceding_byte(buffer, &fields.name, 0) &&
         rw_buffer_write_preceding_byte(buffer, &fields.type, 0) &&
         rw_buffer_write_preceding_byte(buffer, &fields.value, 0);
}
