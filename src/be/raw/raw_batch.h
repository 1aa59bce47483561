#pragma once
// The samples of one parsed chunk, by kind, on their way to the stores. A batch belongs to one thread at a
// time; it is filled by a parser and handed over whole.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "be/raw/known_metrics.h"
#include "db/raw/nom/nom_sample.h"
#include "util/histogram_entries.h"
#include "util/metric_locator.h"

struct dorn_record_m_value_t;

namespace be::raw {

// A numeric sample. The locator is the canonical one once the surrogate id is set.
struct batch_numeric_t {
  metric_locator_sp locator;
  bool is_local = false;         // this node owns it
  bool needs_surrogate = false;  // no id yet, or an activity to be recorded: the surrogate writer's work
};

// A name under which a metric is to be known.
struct sent_name_t {
  uint32_t at;  // of its sample in the batch
  name_form_e form;
  std::string name;
};

// Whether the samples go to the journals of the metrics' other owners.
enum class batch_journal_e : uint8_t { journal, no_journal };

struct raw_batch_t {
  std::vector<db::raw::nom_sample_t> samples;  // in order of arrival, one for each entry of `numerics`
  std::vector<batch_numeric_t> numerics;
  std::unique_ptr<histogram_data_t> histograms;
  // Names as sent of the metrics that are not known yet, in order: remembered under them later.
  std::vector<sent_name_t> names_as_sent;
  batch_journal_e journal = batch_journal_e::journal;

  size_t size() const { return numerics.size() + (histograms ? static_cast<size_t>(histograms->count) : 0); }
  bool empty() const { return size() == 0; }
};

// What became of a sample.
enum class batch_add_e { added, misdirected, bad_name };

// Finds or makes the locator, decides whether this node owns the metric, and adds the sample. `value` is one of
// the five numeric kinds or a null of one. Within a memory section.
batch_add_e raw_batch_add_numeric(raw_batch_t *batch, known_metrics_c *known, const metric_name_t &name,
                                  uint64_t time_ms, const dorn_record_m_value_t &value, uint16_t generation);
// The two halves of that: a metric that is known under the name (none when it is not), and one that is not,
// `text` being its name in the metric names' own form.
std::optional<batch_add_e> raw_batch_add_known(raw_batch_t *batch, known_metrics_c *known,
                                               const metric_name_t &name, uint64_t time_ms,
                                               const dorn_record_m_value_t &value, uint16_t generation);
batch_add_e raw_batch_add_unknown(raw_batch_t *batch, const metric_name_t &name, std::string_view text,
                                  uint64_t time_ms, const dorn_record_m_value_t &value, uint16_t generation);
// Takes the numeric sample that was added last out again.
void raw_batch_drop_last(raw_batch_t *batch);
// Takes the histogram over.
batch_add_e raw_batch_add_histogram(raw_batch_t *batch, const metric_locator_sp &locator, uint64_t time_ms,
                                    hist_ptr histogram, bool cumulative);

// Is this node among the metric's owners, under the active or (while a rebalance is under way) the next
// topology?
bool rest_raw_mgr_is_local(const velmar_metric_locator_t *locator);

}  // namespace be::raw
