// Any bytes as lines: each is a sample, an error or a discarded one, and nothing is counted twice. The second
// time the metrics are known by their canonical names, and the result is the same.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "be/graphite/graphite_line.h"
#include "be/graphite/rest_graphite_mgr.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"

using namespace be::graphite;

static void parse(const std::string &text, size_t lines, be::raw::known_metrics_c *known,
                  be::raw::raw_batch_t *batch) {
  const source_t source{{1}, 1};
  atomic_counters_t counters;
  rest_graphite_mgr_parse_ingestion_data(source, &counters, known, text.data(), text.size(), lines, batch);
  if (batch->samples.size() != batch->numerics.size() || counters.processed != lines) abort();
  if (batch->size() + counters.errors + counters.discarded != lines) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool silent = (krel_log_stream_switch("error", false), true);
  (void)silent;
  std::string text(reinterpret_cast<const char *>(data), size), name;
  rewrite_name(text, &name);
  text += '\n';
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  const krel_memory_section_c section;
  static be::raw::known_metrics_c none;
  be::raw::raw_batch_t first, second;
  parse(text, lines, &none, &first);
  if (first.empty()) return 0;
  be::raw::known_metrics_c known;
  for (const auto &numeric : first.numerics) {
    velmar_metric_locator_t *l = numeric.locator.get();
    velmar_metric_locator_set_surrogate_id(l, 1);
    velmar_metric_locator_set_canonical(l);
    known.insert({velmar_metric_locator_get_check_uuid(l), 1, velmar_metric_locator_get_name_with_tags(l)}, l);
  }
  parse(text, lines, &known, &second);
  if (first.size() != second.size()) abort();
  for (size_t i = 0; i < first.size(); i++)
    if (!velmar_metric_locator_equal(first.numerics[i].locator.get(), second.numerics[i].locator.get()))
      abort();
  return 0;
}
