#include "be/raw/raw_put_write.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/event/krelev.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace be::raw {

namespace {

using db::surrogate::key_c;
using db::surrogate::write_entry_c;
using ms_t = std::chrono::milliseconds;

constexpr int STATUS_BACKLOG = 503;

std::atomic<journal_sink_c *> journal_sink{nullptr};
std::atomic<uint64_t> unsent_samples{0};

// One kind of a batch on its way. Owned by itself from start to finish.
class batch_write_c : public db::raw::is_raw_write_closure_t {
 public:
  batch_write_c(raw_put_request_t *request, raw_batch_t &&batch)
      : m_request(request), m_batch(std::move(batch)) {}

  void start(libvelmar_join_t parent, krelev_jobq_t *jobq) {
    m_joiner = libvelmar_join_create_child(parent, counted, this);
    // leaves the parse thread, reaches a thread of the ingest queue
    krelev_jobq_run(jobq, [this] { ingest(); });
  }

  void on_success() override {}
  void on_error(const db::raw::raw_write_error_c &error) override {
    fail(error.get_code(), error.get_text(), error.get_row_count(),
         error.get_key().is_valid() ? error.get_key().get_orig_key().get_timestamp().count() : 0);
  }
  // On the raw writer's thread, or where the batch was given up.
  void on_complete() override {
    journal_out();
    ingestion_gate_mgr_c::count_done();
    libvelmar_join_commit(m_joiner);
  }

 protected:
  virtual size_t local_count() const = 0;
  // Fills the entries for the surrogate writer; what is known already needs none.
  virtual void collect_write_entries(std::vector<write_entry_c> *entries) = 0;
  virtual void take_value(size_t entry, const db::surrogate::value_c &value) = 0;
  virtual void write_data() = 0;

  raw_put_request_t *const m_request;
  raw_batch_t m_batch;

 private:
  void ingest();
  void fail(int code, const char *text, uint64_t rows, long timestamp);
  void journal_out();
  static void wrote_surrogate_cb(db::surrogate::value_manager_c *manager, db::surrogate::value_reader_c *reader,
                                 void *closure);
  static void counted(void *closure);

  libvelmar_join_t m_joiner = nullptr;
  std::vector<write_entry_c> m_write_entries;
  std::atomic<uint64_t> m_num_errors{0};
  bool m_given_up = false;  // nothing was stored: nothing is journaled
};

void batch_write_c::ingest() {
  if (m_request->is_stale(expirable_c::clock_t::now())) {
    m_given_up = true;
    fail(db::raw::RAW_WRITE_ERROR_BACKLOG, "too many jobs on backlog", local_count(), 0);
    return on_complete();
  }
  collect_write_entries(&m_write_entries);
  if (m_write_entries.empty()) {
    write_data();
    return;
  }
  ingestion_gate_mgr_c::count_surrogate_write();
  // leaves the ingest thread, comes back on one of "sur_cb"
  raw_mgr().surrogate_writer->write_surrogate_set_asynch(m_write_entries.data(), m_write_entries.size(),
                                                         wrote_surrogate_cb, nullptr, this);
}

void batch_write_c::wrote_surrogate_cb(db::surrogate::value_manager_c *manager,
                                       db::surrogate::value_reader_c *reader, void *closure) {
  auto *self = static_cast<batch_write_c *>(closure);
  krel_assert(reader->get_count() <= self->m_write_entries.size());
  for (size_t i = 0; i < reader->get_count(); i++) self->take_value(i, reader->get_values()[i]);
  manager->free_values(reader);
  self->m_write_entries.clear();
  self->write_data();
}

void batch_write_c::fail(int code, const char *text, uint64_t rows, long timestamp) {
  krel_log(krel_error, "ERROR: %s: %s: timestamp %ld: %s\n", "num_async_write_failure", "raw put", timestamp,
           text);
  if (code == db::raw::RAW_WRITE_ERROR_BACKLOG)
    m_request->set_error(STATUS_BACKLOG, "too many jobs on backlog");
  m_num_errors.fetch_add(rows, std::memory_order_relaxed);
}

void batch_write_c::journal_out() {
  if (m_given_up || m_batch.journal == batch_journal_e::no_journal) return;
  if (journal_sink_c *sink = journal_sink.load(std::memory_order_acquire)) {
    krel_assert(sink->append(m_batch));  // no write may be acknowledged that a peer might miss
    return;
  }
  topo_config *active = topo_active(), *next = topo_next_active();
  if (topo_get_all_nodes_except_self(active, nullptr) + topo_get_all_nodes_except_self(next, nullptr) == 0)
    return;
  if (unsent_samples.fetch_add(m_batch.size()) == 0)
    krel_log(krel_error,
             "the topology has peers, and this build has no journals to send samples to them: they get none of "
             "what is "
             "written here (GET /stats.json counts them as be.raw.unsent)\n");
}

// The child joiner's completion: the request's counts, before its own joiner counts down.
void batch_write_c::counted(void *closure) {
  auto *self = static_cast<batch_write_c *>(closure);
  const uint64_t total = self->local_count(), errors = std::min<uint64_t>(self->m_num_errors, total);
  self->m_request->counters.successes.fetch_add(static_cast<uint32_t>(total - errors),
                                                std::memory_order_relaxed);
  self->m_request->counters.errors.fetch_add(static_cast<uint32_t>(errors), std::memory_order_relaxed);
  delete self;
}

class numeric_write_c : public batch_write_c {
 public:
  using batch_write_c::batch_write_c;

 protected:
  size_t local_count() const override { return m_local; }
  void collect_write_entries(std::vector<write_entry_c> *entries) override;
  void take_value(size_t entry, const db::surrogate::value_c &value) override;
  void write_data() override;

 private:
  void update_latest();

  const size_t m_local = static_cast<size_t>(std::count_if(
      m_batch.numerics.begin(), m_batch.numerics.end(), [](const batch_numeric_t &n) { return n.is_local; }));
  std::vector<uint32_t> m_entry_index;                 // of each write entry, its place in the batch
  std::vector<db::raw::nom_sample_t> m_local_samples;  // when some are not local
};

void numeric_write_c::collect_write_entries(std::vector<write_entry_c> *entries) {
  for (size_t i = 0; i < m_batch.numerics.size(); i++) {
    const batch_numeric_t &n = m_batch.numerics[i];
    if (!n.needs_surrogate) continue;
    key_c key;
    key.set_data(n.locator, ms_t(static_cast<int64_t>(m_batch.samples[i].ts_ms)));
    entries->emplace_back(std::move(key));
    m_entry_index.push_back(static_cast<uint32_t>(i));
  }
}

void numeric_write_c::take_value(size_t entry, const db::surrogate::value_c &value) {
  const uint32_t i = m_entry_index[entry];
  batch_numeric_t &n = m_batch.numerics[i];
  const metric_locator_sp &canonical = value.get_orig_key().get_metric_locator();
  const bool is_new = m_batch.samples[i].surrogate_id == 0;
  m_batch.samples[i].surrogate_id = value.get_surrogate_id();
  if (is_new) {
    const velmar_metric_locator_t *l = canonical.get();
    metric_name_t name{
        velmar_metric_locator_get_check_uuid(l),
        velmar_metric_locator_get_account_id(n.locator.get()),
        {velmar_metric_locator_get_name_with_tags(l), velmar_metric_locator_get_name_len_with_tags(l)}};
    raw_mgr().known.insert(name, canonical.get());
    auto &sent = m_batch.names_as_sent;
    const auto it = std::lower_bound(sent.begin(), sent.end(), i,
                                     [](const sent_name_t &s, uint32_t at) { return s.at < at; });
    if (it != sent.end() && it->at == i) {
      name.name = it->name;
      name.form = it->form;
      raw_mgr().known.insert(name, canonical.get());
    }
  }
  n.locator = canonical;
}

void numeric_write_c::update_latest() {
  for (size_t i = 0; i < m_batch.numerics.size(); i++) {
    const batch_numeric_t &n = m_batch.numerics[i];
    const db::raw::nom_sample_t &s = m_batch.samples[i];
    if (!n.is_local || s.is_null) continue;
    velmar_metric_locator_numeric_value_t value;
    value.v_uint64 = s.bits;
    velmar_metric_locator_update_numeric(n.locator.get(), s.ts_ms, static_cast<velmar_metric_type_t>(s.type),
                                         &value, false);
  }
}

void numeric_write_c::write_data() {
  ingestion_gate_mgr_c::count_data_write();
  update_latest();
  if (m_local == 0) return on_complete();
  if (m_local == m_batch.samples.size())
    return raw_mgr().numeric_writer->write_numeric_asynch(m_batch.samples, this);
  m_local_samples.reserve(m_local);
  for (size_t i = 0; i < m_batch.samples.size(); i++)
    if (m_batch.numerics[i].is_local) m_local_samples.push_back(m_batch.samples[i]);
  raw_mgr().numeric_writer->write_numeric_asynch(m_local_samples, this);
}

class histogram_write_c : public batch_write_c {
 public:
  using batch_write_c::batch_write_c;

 protected:
  size_t local_count() const override {
    size_t count = 0;
    for (const histogram_entries_t *e = m_batch.histograms->head; e; e = e->next) count += e->is_local;
    return count;
  }
  void collect_write_entries(std::vector<write_entry_c> *entries) override;
  void take_value(size_t entry, const db::surrogate::value_c &value) override { m_values[entry] = value; }
  void write_data() override;

 private:
  std::vector<histogram_entries_t *> m_local_entries;
  std::vector<db::surrogate::value_c> m_values;
  std::vector<db::raw::raw_entry_c> m_entries;
};

void histogram_write_c::collect_write_entries(std::vector<write_entry_c> *entries) {
  for (histogram_entries_t *e = m_batch.histograms->head; e; e = e->next) {
    if (!e->is_local) continue;
    key_c key;
    key.set_data(e->metric_locator, ms_t(static_cast<int64_t>(e->offset)));
    entries->emplace_back(std::move(key));
    m_local_entries.push_back(e);
  }
  m_values.resize(m_local_entries.size());
}

void histogram_write_c::write_data() {
  ingestion_gate_mgr_c::count_data_write();
  if (m_local_entries.empty()) return on_complete();
  m_entries.resize(m_local_entries.size());
  for (size_t i = 0; i < m_entries.size(); i++) {
    histogram_entries_t *e = m_local_entries[i];
    dorn_record_m_value_t data{};
    data.type = e->cumulative ? VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY : VELMAR_METRIC_HISTOGRAM_ENTRY;
    data.storage.v_histogram = e;
    db::raw::raw_value_c value;
    value.set_data_non_owner(data, 0);
    m_entries[i].set_data(&m_values[i], std::move(value));
  }
  raw_mgr().histogram_writer->write_set_asynch(m_entries.data(), m_entries.size(), this);
}

}  // namespace

raw_mgr_t &raw_mgr() {
  static raw_mgr_t mgr;
  return mgr;
}

void raw_mgr_set_journal_sink(journal_sink_c *sink) {
  journal_sink.store(sink, std::memory_order_release);
}
uint64_t raw_mgr_unsent_samples() {
  return unsent_samples.load();
}

void raw_mgr_process_batch(raw_put_request_t *request, libvelmar_join_t joiner, raw_batch_t &&batch) {
  if (batch.histograms) {
    if (raw_mgr().histogram_writer) {
      raw_batch_t histograms;
      histograms.histograms = std::move(batch.histograms);
      histograms.journal = batch.journal;
      (new histogram_write_c(request, std::move(histograms)))->start(joiner, raw_mgr().hist_ingest_jobq);
    } else {
      request->counters.errors.fetch_add(static_cast<uint32_t>(batch.histograms->count),
                                         std::memory_order_relaxed);
      krel_log(krel_error,
               "%d histogram samples refused: no store for them is configured (histogram_ingest/@location)\n",
               batch.histograms->count);
    }
  }
  if (!batch.numerics.empty())
    (new numeric_write_c(request, std::move(batch)))->start(joiner, raw_mgr().ingest_jobq);
}

}  // namespace be::raw
