#include "be/raw/raw_merge_parse.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "be/raw/raw_put_parse.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/base/krel_log.h"
#include "util/metric_db_record.h"

namespace be::raw {

namespace {

using kinds_by_metric_t =
    std::unordered_map<metric_locator_sp, int, metric_locator_key_hasher_t, metric_locator_key_equal_to_t>;

constexpr uint8_t ALL_CATEGORIES = METRIC_TYPE_NUMERIC | METRIC_TYPE_HISTOGRAM | METRIC_TYPE_TEXT;

// The second field behind the type is a bare uuid; in a line of a sample a check's name stands there before it.
bool names_a_metric(std::string_view line) {
  const size_t uuid = line.find('\t', line.find('\t') + 1) + 1;
  return line.starts_with("M\t") && uuid != 0 && line.find('\t', uuid) == uuid + 36;
}

metric_locator_sp read_name(std::string_view line) {
  metric_db_record_m_t record;
  if (!metric_db_record_parse_m(line.substr(2), &record) || record.category > ALL_CATEGORIES) {
    krel_log(krel_error, "Failed parse: %.*s\n", static_cast<int>(line.size()), line.data());
    return nullptr;
  }
  const auto type = static_cast<velmar_metric_locator_metric_type_e>(
      record.category ? record.category : static_cast<uint8_t>(METRIC_TYPE_NUMERIC));
  auto locator = metric_locator_adopt(velmar_metric_locator_create_full(
      static_cast<int32_t>(record.account_id), type, record.check_uuid, &record.metric_name_buf));
  if (locator && !rest_raw_mgr_is_local(locator.get())) {
    krel_log(krel_error, "a peer names a metric that this node does not own: %.*s\n",
             static_cast<int>(line.size()), line.data());
    return nullptr;
  }
  return locator;
}

}  // namespace

bool rest_raw_mgr_reconstitute_metrics_parse(raw_put_request_t *request, known_metrics_c *known, char *text,
                                             size_t length, size_t line_count, raw_batch_t *batch,
                                             std::vector<metric_locator_sp> *named) {
  char *kept = text;  // lines of samples move up to the front
  size_t samples = 0;
  uint32_t errors = 0;
  for (char *at = text, *const end = text + length; at < end;) {
    char *newline = static_cast<char *>(memchr(at, '\n', static_cast<size_t>(end - at)));
    if (!newline) break;
    const std::string_view line(at, static_cast<size_t>(newline - at));
    if (names_a_metric(line)) {
      if (auto locator = read_name(line))
        named->push_back(std::move(locator));
      else
        errors++;
    } else {
      memmove(kept, at, line.size() + 1);
      kept += line.size() + 1;
      samples++;
    }
    at = newline + 1;
  }
  request->counters.errors.fetch_add(errors, std::memory_order_relaxed);
  request->counters.processed.fetch_add(static_cast<uint32_t>(line_count - samples), std::memory_order_relaxed);
  batch->journal = batch_journal_e::no_journal;
  return rest_raw_mgr_parse_ingestion_data(request, known, text, static_cast<size_t>(kept - text), samples,
                                           batch);
}

void raw_mgr_write_named_metrics(raw_put_request_t *request, const std::vector<metric_locator_sp> &named) {
  using namespace db::surrogate;
  if (named.empty()) return;
  // what several lines tell of one metric, and what is known of it already
  kinds_by_metric_t told, known;
  for (const metric_locator_sp &locator : named) told[locator] |= velmar_metric_locator_get_type(locator.get());
  const auto stored = velmar_global_surrogate_get_lookup_synch()->batch_find(named);
  while (stored->fill_next_page())
    for (const metric_locator_sp &locator : stored->get_page_locators())
      known[locator] = velmar_metric_locator_get_type(locator.get());
  std::vector<write_entry_c> entries;
  entries.reserve(told.size());
  for (const auto &[locator, kinds] : told) {
    const auto found = known.find(locator);
    const int all = found == known.end() ? kinds : kinds | found->second;
    if (found != known.end() && all == found->second) continue;
    velmar_metric_locator_set_type(locator.get(), static_cast<velmar_metric_locator_metric_type_e>(all));
    key_c key;
    key.set_data(locator, std::chrono::milliseconds(0));
    entries.emplace_back(std::move(key));
  }
  if (entries.empty()) return;
  writer_asynch_c::write_surrogate_set_synch(
      raw_mgr().surrogate_writer.get(), entries.data(), entries.size(),
      [](value_manager_c *manager, value_reader_c *reader, void *) { manager->free_values(reader); },
      [](const key_c &, void *, void *closure) {
        static_cast<raw_put_request_t *>(closure)->counters.errors.fetch_add(1, std::memory_order_relaxed);
      },
      request);
}

}  // namespace be::raw
