// Chunks of text lines: whatever they hold, a line that is taken has sound fields inside the buffer, and the
// cut without changes finds the same ones.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/metric_locator.h"
#include "util/raw_record.h"

static void check(bool ok) {
  if (!ok) abort();
}

static void check_record(const std::string &bytes, const dorn_record_m_t &record) {
  const char *start = bytes.data(), *stop = start + bytes.size();
  for (const mem_reader_t *field : {&record.check_name_buf, &record.metric_name_buf}) {
    check(field->input_buffer >= start && field->input_buffer + field->input_buffer_size < stop);
    check(strlen(field->input_buffer) == field->input_buffer_size);
  }
  if (record.value.is_null) return;
  if (record.value.type == VELMAR_METRIC_DOUBLE) check(std::isfinite(record.value.storage.v_double));
  if (record.value.type == VELMAR_METRIC_STRING) {
    const char *text = record.value.storage.v_string;
    check(text >= start && text < stop && text + strlen(text) < stop);
  }
  const metric_locator_sp ml = metric_locator_adopt(
      velmar_metric_locator_create_full(static_cast<int32_t>(record.account_id), METRIC_TYPE_NUMERIC,
                                        record.check_uuid, &record.metric_name_buf));
  if (!ml) return;
  // A canonical name is its own canonical form.
  const metric_locator_sp again = metric_locator_adopt(velmar_metric_locator_clone(ml.get()));
  check(velmar_metric_locator_equal(ml.get(), again.get()) &&
        velmar_metric_locator_matches(ml.get(), again.get()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string bytes(reinterpret_cast<const char *>(data), size);
  rw_buffer_t buffer;
  rw_buffer_fill(&buffer, bytes.data(), bytes.size());
  mem_reader_t chunk = rw_buffer_get_reader(&buffer), line, rest;
  while (dorn_record_get_next_line(&buffer, &chunk, &line)) {
    const char *type = dorn_record_get_next_field(&buffer, &line, &rest);
    if (!type) continue;
    dorn_record_type_lookup(type);
    dorn_record_fields_t fields;
    dorn_record_m_t record;
    const bool cut = dorn_record_split_m(&rest, &fields);
    const std::string identity(cut ? mem_reader_view(fields.identity) : std::string_view());
    if (!dorn_record_parse_m(&buffer, &rest, &record)) continue;
    check(cut && identity.ends_with("\t" + std::string(mem_reader_view(record.metric_name_buf))) &&
          identity.starts_with(mem_reader_view(record.check_name_buf)));
    check_record(bytes, record);
  }
  return 0;
}
