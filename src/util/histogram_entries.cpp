#include "util/histogram_entries.h"

#include "util/raw_record.h"
#include "util/uuid_text.h"

histogram_entries_t::histogram_entries_t(const histogram_entries_t &other)
    : offset(other.offset),
      cumulative(other.cumulative),
      is_local(other.is_local),
      account_id(other.account_id),
      metric_locator(other.metric_locator),
      histogram(other.histogram),
      materialized_histogram(other.materialized_histogram ? hist_clone(other.materialized_histogram.get())
                                                          : nullptr),
      surrogate_value(other.surrogate_value) {}

void free_histogram_entry_chain(histogram_entries_t *head) {
  while (head) {
    const std::unique_ptr<histogram_entries_t> entry(head);
    head = entry->next;
  }
}

static void append(histogram_data_t *list, std::unique_ptr<histogram_entries_t> entry) {
  histogram_entries_t *last = entry.release();
  (list->tail ? list->tail->next : list->head) = last;
  list->tail = last;
  list->count++;
}

// An entry around the locator goes to the end of the chain; false when anything is missing.
static bool add(const char *function, histogram_data_t *list, velmar_metric_locator_t *locator, bool has_value,
                std::unique_ptr<histogram_entries_t> entry, krel_mutex_c *mutex) {
  if (!list || !locator || !has_value) {
    const auto named = [](bool there) { return there ? "not null" : "null"; };
    krel_log(krel_error, "%s: couldn't add histogram - list %s, metric_locator %s, value %s\n", function,
             named(list), named(locator), named(has_value));
    return false;
  }
  entry->metric_locator = metric_locator_sp(locator);
  entry->account_id = velmar_metric_locator_get_account_id(locator);
  if (!mutex) {
    append(list, std::move(entry));
    return true;
  }
  const krel_lock_c lock(*mutex);
  append(list, std::move(entry));
  return true;
}

bool add_histogram_to_list(histogram_data_t *list, uint64_t time_ms, velmar_metric_locator_t *locator,
                           const mem_reader_t *b64, bool cumulative, krel_mutex_c *mutex) {
  auto entry = std::make_unique<histogram_entries_t>();
  entry->offset = time_ms;
  entry->cumulative = cumulative;
  if (b64) entry->histogram = mem_reader_view(*b64);
  return add(__func__, list, locator, b64 != nullptr, std::move(entry), mutex);
}

bool add_materialized_histogram_to_list(histogram_data_t *list, uint64_t time_ms,
                                        velmar_metric_locator_t *locator, hist_ptr histogram, bool cumulative,
                                        krel_mutex_c *mutex) {
  auto entry = std::make_unique<histogram_entries_t>();
  entry->offset = time_ms;
  entry->cumulative = cumulative;
  entry->materialized_histogram = std::move(histogram);
  const bool has_value = entry->materialized_histogram != nullptr;
  return add(__func__, list, locator, has_value, std::move(entry), mutex);
}

// Log lines show this much of a bad field at most.
static int shown(const mem_reader_t &field) {
  return static_cast<int>(std::min<size_t>(field.input_buffer_size, 1024));
}

hist_ptr decode_histogram_value(const mem_reader_t *b64) {
  hist_ptr histogram(hist_alloc());
  if (hist_deserialize_b64(histogram.get(), b64->input_buffer, b64->input_buffer_size) >= 0) return histogram;
  krel_log(krel_error, "Failed to deserialize histogram: |%.*s|\n", shown(*b64), b64->input_buffer);
  return nullptr;
}

static bool cut_field(mem_reader_t *line, mem_reader_t *field) {
  mem_reader_t rest;
  const size_t pos = mem_reader_find_pos_after_sep(line, '\t', &rest);
  if (pos == 0 || pos > line->input_buffer_size) return false;
  *field = {line->input_buffer, pos - 1};
  *line = rest;
  return true;
}

int decode_histogram_string(const mem_reader_t *line, histogram_line_t *out) {
  mem_reader_t left = *line, type, time, check, name, check_name;
  if (!cut_field(&left, &type)) return HISTOGRAM_LINE_TYPE;
  out->cumulative = mem_reader_view(type) == "H2";
  if (!out->cumulative && mem_reader_view(type) != "H1") return HISTOGRAM_LINE_TYPE;
  if (!cut_field(&left, &time) || !dorn_record_parse_m_timestamp(mem_reader_view(time), &out->whence_ms))
    return HISTOGRAM_LINE_TIME;
  if (!cut_field(&left, &check) || check.input_buffer_size < UUID_TEXT_SIZE + 1) return HISTOGRAM_LINE_CHECK;
  uint8_t uuid[16];
  if (!dorn_record_parse_check(&check, &check_name, uuid, &out->account_id)) {
    krel_log(krel_error, "krel_uuid_parse(%.*s) failed\n", static_cast<int>(UUID_TEXT_SIZE),
             check.input_buffer + check.input_buffer_size - UUID_TEXT_SIZE);
    return HISTOGRAM_LINE_UUID;
  }
  if (!cut_field(&left, &name)) return HISTOGRAM_LINE_NAME;
  out->metric_locator = metric_locator_adopt(velmar_metric_locator_create_full(
      static_cast<int32_t>(out->account_id), METRIC_TYPE_HISTOGRAM, uuid, &name));
  if (!out->metric_locator) {
    krel_log(krel_error, "metric_name_v1_parse(%.*s) failed\n", shown(name), name.input_buffer);
    return HISTOGRAM_LINE_TAGS;
  }
  out->value = left;
  if (left.input_buffer_size == 0) return HISTOGRAM_LINE_VALUE;
  out->histogram = decode_histogram_value(&left);
  return out->histogram ? 1 : HISTOGRAM_LINE_HISTOGRAM;
}
