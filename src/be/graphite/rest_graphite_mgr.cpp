#include "be/graphite/rest_graphite_mgr.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "be/graphite/graphite_line.h"
#include "be/graphite/graphite_log.h"
#include "be/raw/raw_put_parse.h"
#include "be/raw/raw_put_write.h"
#include "ingestion/metric_validation.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/tolvmetrics/stats.h"
#include "replicate/replicate_mgr.h"
#include "rest/rest_helpers.h"
#include "util/velmar_stats.h"

namespace be::graphite {

namespace {

using raw::batch_add_e;

constexpr const char *FUNCTION = "rest_graphite_mgr_parse_ingestion_data";
constexpr size_t SHOWN = 1000;        // of a line that is logged
constexpr size_t SHORTEST_LINE = 15;  // that is taken: its time has ten digits

stats_handle_t *stat_records, *stat_errors, *stat_discarded, *stat_misdirected;

class parser_c {
 public:
  parser_c(const source_t &source, raw::known_metrics_c *known, raw::raw_batch_t *batch)
      : m_source(source), m_known(known), m_batch(batch), m_now_ms(krel_now_ms()) {}

  void line(std::string_view text);
  void flush_counts(size_t records, atomic_counters_t *counters) const;

 private:
  batch_add_e add(const line_t &line);
  void fault(line_fault_e fault, std::string_view text);

  const source_t &m_source;
  raw::known_metrics_c *const m_known;
  raw::raw_batch_t *const m_batch;
  const uint64_t m_now_ms;
  std::string m_name;  // rewritten
  uint32_t m_errors = 0, m_misdirected = 0, m_discarded = 0;
};

int shown(std::string_view text) {
  return static_cast<int>(std::min(text.size(), SHOWN));
}

const char *fault_text(line_fault_e fault) {
  switch (fault) {
    case line_fault_e::no_first_separator:
      return "can't find the first space or tab in";
    case line_fault_e::name_too_long:
      return "metric name too long";
    case line_fault_e::no_second_separator:
      return "can't find the second space or tab in";
    case line_fault_e::too_old:
      return "weird or really old timestamp";
    case line_fault_e::too_new:
      return "weird or really futuristic timestamp";
    case line_fault_e::no_digits:
      return "no digits in value";
    default:
      return "strtod cannot parse value";
  }
}

void parser_c::fault(line_fault_e fault, std::string_view text) {
  (fault == line_fault_e::too_old || fault == line_fault_e::too_new ? m_discarded : m_errors)++;
  krel_log(log_error(), "Invalid graphite record, %s: %.*s\n", fault_text(fault), shown(text), text.data());
}

// The name is rewritten and parsed for a metric that is met for the first time only.
batch_add_e parser_c::add(const line_t &line) {
  const bool tags = name_has_tags(line.name);
  const raw::metric_name_t name{m_source.check_uuid.data(), m_source.account_id, line.name,
                                tags ? raw::name_form_e::graphite : raw::name_form_e::metric};
  if (const auto known = raw_batch_add_known(m_batch, m_known, name, line.time_ms, line.value, 0))
    return *known;
  std::string_view text = line.name;
  if (tags) {
    rewrite_name(line.name, &m_name);
    krel_log(log_debug(), "Reformatted graphite name: %s\n", m_name.c_str());
    text = m_name;
  }
  return raw_batch_add_unknown(m_batch, name, text, line.time_ms, line.value, 0);
}

void parser_c::line(std::string_view text) {
  krel_log(log_debug(), "Graphite record: %.*s\n", shown(text), text.data());
  line_t line;
  if (const line_fault_e bad = parse_line(text, m_now_ms, &line); bad != line_fault_e::none)
    return fault(bad, text);
  const batch_add_e result = add(line);
  if (result == batch_add_e::bad_name) {
    m_errors++;
    krel_log(log_error(), "Invalid graphite record: cannot parse metric name \"%.*s\"\n", shown(line.name),
             line.name.data());
    return;
  }
  const velmar_metric_locator_t *locator = m_batch->numerics.back().locator.get();
  if (db::ingestion::logs_old_data())
    db::ingestion::log_old_data("rest_graphite_mgr_parse_ingestion_data_cleanup", line.time_ms, m_now_ms,
                                locator);
  if (raw::raw_mgr_discards(locator)) {
    m_discarded++;
    raw_batch_drop_last(m_batch);
  } else if (result == batch_add_e::misdirected) {
    m_misdirected++;
    krel_log(log_debug(), "%s: Received metric that I don't own: %.*s\n", FUNCTION, shown(line.name),
             line.name.data());
  }
}

void parser_c::flush_counts(size_t records, atomic_counters_t *counters) const {
  const auto add = [](std::atomic<uint32_t> *counter, stats_handle_t *stat, uint32_t amount) {
    if (amount == 0) return;
    counter->fetch_add(amount, std::memory_order_relaxed);
    if (stat) stats_add64(stat, amount);
  };
  add(&counters->processed, stat_records, static_cast<uint32_t>(records));
  add(&counters->errors, stat_errors, m_errors);
  add(&counters->noti, stat_misdirected, m_misdirected);
  add(&counters->discarded, stat_discarded, m_discarded);
}

}  // namespace

void count_dropped_line() {
  if (stat_records) stats_add64(stat_records, 1);
  if (stat_errors) stats_add64(stat_errors, 1);
}

void rest_graphite_mgr_parse_ingestion_data(const source_t &source, atomic_counters_t *counters,
                                            raw::known_metrics_c *known, const char *text, size_t length,
                                            size_t line_count, raw::raw_batch_t *batch) {
  raw::ingestion_gate_mgr_c::count_parse();
  const size_t room = std::min(line_count, length / SHORTEST_LINE + 1);
  batch->samples.reserve(room);
  batch->numerics.reserve(room);
  parser_c parser(source, known, batch);
  size_t lines = 0;
  const char *const end = text + length;
  for (const char *newline; (newline = static_cast<const char *>(memchr(text, '\n', end - text)));
       text = newline + 1) {
    if (lines++ < line_count)
      parser.line({text, static_cast<size_t>(newline - text)});
    else
      krel_log(log_error(), "graphite record overflow\n");
  }
  parser.flush_counts(line_count, counters);
}

const refusal_t *refusal() {
  static const refusal_t journal_only{403, "JOURNAL ONLY MODE",
                                      "{ \"error\": \"system is in journal only mode, not accepting data\" }"},
      no_store{200, "OK", "{\"status\": \"not configured to store raw numeric data\"}"},
      ephemeral{418, "EPHEMERAL NODE", "{ \"error\": \"cannot write to ephemeral node\" }"},
      not_participating{418, "NON-PARTICIPATING NODE",
                        "{ \"error\": \"cannot write to node not participating in current topology\" }"};
  if (!raw::raw_mgr().numeric_writer) return rest_helper_is_journal_only() ? &journal_only : &no_store;
  if (topo_i_am_ephemeral()) return &ephemeral;
  return replicate_mgr_get_participating() ? nullptr : &not_participating;
}

}  // namespace be::graphite

void rest_graphite_mgr_init() {
  using namespace be::graphite;
  log_init();
  stat_records = velmar_stats_get_handle("be.graphite.records", STATS_TYPE_COUNTER);
  stat_errors = velmar_stats_get_handle("be.graphite.errors", STATS_TYPE_COUNTER);
  stat_discarded = velmar_stats_get_handle("be.graphite.discarded", STATS_TYPE_COUNTER);
  stat_misdirected = velmar_stats_get_handle("be.graphite.misdirected", STATS_TYPE_COUNTER);
}
