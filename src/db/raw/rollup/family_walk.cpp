#include "db/raw/rollup/family_walk.h"

#include "db/raw/nom/nom_format.h"
#include "db/raw/rollup/family_state.h"
#include "db/raw/rollup/locator_window.h"
#include "db/raw/rollup/rollup_data.h"
#include "db/raw/rollup/rollup_hooks.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"

namespace db::raw {

namespace {

using namespace velmar_db_raw_nom;

class family_walk_c {
 public:
  family_walk_c(const rollup_pass_t &pass, size_t family, family_state_c *state)
      : m_pass(pass),
        m_store(*pass.store),
        m_family(family),
        m_state(state),
        m_cursor(pass.db->create_record_cursor(family, cursor_use_e::all_records)),
        m_locators(pass.store->lookup.get(), pass.db->create_record_cursor(family, cursor_use_e::metrics)) {}
  void run();

 private:
  void position();
  bool walk();
  bool take_record();
  bool skip(const char *text, uint32_t floor_s);
  bool is_right_record(std::string_view record, uint32_t floor_s);
  void go_to_metric(uint64_t surrogate_id);
  void flush();
  bool store_metric();
  void finish();
  long start_s() const { return static_cast<long>(m_pass.start_s); }
  long end_s() const { return static_cast<long>(m_pass.end_s); }

  const rollup_pass_t &m_pass;
  const rollup_store_t &m_store;
  const size_t m_family;
  family_state_c *const m_state;
  const std::unique_ptr<raw_record_cursor_c> m_cursor;
  locator_window_c m_locators;
  std::unique_ptr<rollup_data_c> m_data;
  uint64_t m_resume_at_surrogate_id = 0;
  bool m_has_metric = false;
  uint64_t _surrogate_id = 0;
  uint64_t _error_cnt = 0;  // metrics whose cells were not all stored
  uint64_t m_metrics = 0;
  bool m_noted_dirty = false;
};

// To where an earlier pass got, else to the first record.
void family_walk_c::position() {
  m_resume_at_surrogate_id = m_state->load_last_surrogate();
  if (m_resume_at_surrogate_id != 0) {
    m_cursor->seek(m_resume_at_surrogate_id);
    const std::string error = m_cursor->get_error();
    const bool damaged = m_cursor->is_valid() && !has_right_checksum(m_cursor->get_record());
    if (error.empty() && !damaged) return;
    if (damaged)
      krel_log(krel_error, "timeshard checksum invalid on initial iter.... seeking to first\n");
    else
      krel_log(krel_error, "timeshard got error on iter seek for rollup (%s).... seeking to first\n",
               error.c_str());
    stats_add64(m_store.stats.errors, 1);
    m_resume_at_surrogate_id = 0;
  }
  m_cursor->seek_to_first();
  const std::string error = m_cursor->get_error();
  if (error.empty()) return;
  krel_log(krel_error, "timeshard got error on iter seek to first for rollup (%s).... seeking to first\n",
           error.c_str());
  krel_fatal("Could not perform rollup - DB corruption possible. Contact Tolvanus customer support.\n");
}

void family_walk_c::run() {
  rollup_step("start");
  position();
  m_data = m_store.kind == NUMERIC ? make_numeric_rollup_data(m_pass)
                                   : make_histogram_rollup_data(m_pass, m_family, m_resume_at_surrogate_id);
  if (walk()) finish();
}

// False: it ended before the family did.
bool family_walk_c::walk() {
  for (; m_cursor->is_valid(); m_cursor->next()) {
    rollup_step("record");
    if (m_pass.is_aborted()) return false;
    if (!m_noted_dirty && m_pass.shard->get_rollup_progress().is_dirty()) {
      m_noted_dirty = true;
      krel_log(krel_notice,
               "timeshard rollup continuing but will need to reroll due to modification midway in column "
               "family %zu for %li-%li\n",
               m_family, start_s(), end_s());
    }
    if (!take_record()) stats_add64(m_store.stats.errors, 1);
  }
  const std::string error = m_cursor->get_error();
  if (error.empty()) return true;
  krel_log(krel_error, "rollup of shard %li-%li: column family %zu cannot be read further: %s\n", start_s(),
           end_s(), m_family, error.c_str());
  stats_add64(m_store.stats.errors, 1);
  return false;
}

bool family_walk_c::skip(const char *text, uint32_t floor_s) {
  krel_log(krel_error, "timeshard %s during rollup, skipping entry: %lu, at: %lu\n", text,
           id_from_key(m_cursor->get_key().data()), static_cast<unsigned long>(floor_s));
  return false;
}

bool family_walk_c::is_right_record(std::string_view record, uint32_t floor_s) {
  if (!has_right_checksum(record)) return skip("invalid checksum on a nomdb entry", floor_s);
  const unsigned type = header_of(record).type;
  const bool numeric = m_store.kind == NUMERIC;
  if (numeric ? !is_numeric_type(type) : !is_histogram_type(type))
    return skip(numeric ? "bad numeric record datatype on a nomdb entry"
                        : "bad histogram record datatype on a nomdb entry",
                floor_s);
  if (type == NOM_TYPE_HIST_COMP || type == NOM_TYPE_HIST_CUMUL_COMP)
    krel_fatal("Rollup not defined for compressed histogram\n");
  if (!is_well_formed(record)) return skip("invalid length of a nomdb entry", floor_s);
  return true;
}

// False, and a line in the log, when the record or something in it is passed over.
bool family_walk_c::take_record() {
  const std::string_view key = m_cursor->get_key();
  uint32_t floor_s = 0;
  if (!timestamp_from_key(key, &floor_s)) {
    krel_log(
        krel_error,
        "timeshard nomdb block found with invalid key length during rollup on column family %zu - skipping "
        "entry in shard %li-%li\n",
        m_family, start_s(), end_s());
    return false;
  }
  // What a numeric record before the shard holds was carried over from the shard before.
  const bool is_before = uint64_t{floor_s} + RECORD_SIZE_S <= m_pass.start_s;
  if (floor_s >= m_pass.end_s || (is_before && m_store.kind != NUMERIC))
    return skip("invalid timestamp_s on a nomdb block", floor_s);
  const std::string_view record = m_cursor->get_record();
  if (!is_right_record(record, floor_s)) return false;
  const uint64_t id = id_from_key(key.data());
  if (!m_has_metric || id != _surrogate_id) go_to_metric(id);
  return m_data->add_record(floor_s, record) || skip("measurements out of order in a nomdb entry", floor_s);
}

void family_walk_c::go_to_metric(uint64_t surrogate_id) {
  if (m_has_metric) {
    krel_log(krel_debug, "Went to new surrogate %lu, flushing entries for surrogate %lu to disk\n",
             surrogate_id, _surrogate_id);
    flush();
  }
  m_has_metric = true;
  _surrogate_id = surrogate_id;
  m_data->start(surrogate_id);
}

// An id without a locator is no metric any more: it produces nothing.
bool family_walk_c::store_metric() {
  const metric_locator_sp locator = m_locators.find(_surrogate_id);
  if (!locator) return true;
  bool stored = true;
  if (m_store.suppression && m_store.suppression->suppresses(locator))
    krel_log(krel_debug, "Suppressing %s rollup of metric %s\n", m_store.kind_name(),
             velmar_metric_locator_get_name_with_tags(locator.get()));
  else
    stored = m_data->write_entries_to_disk(locator);
  if (!m_data->hand_on(locator)) stored = false;
  rollup_step("carried");
  return stored;
}

// The state moves on only behind what is stored: behind a metric that could not be, it stays.
void family_walk_c::flush() {
  if (!store_metric()) _error_cnt++;
  m_metrics++;
  stats_add64(m_store.stats.metrics, 1);
  stats_add64(m_store.stats.samples, static_cast<int64_t>(m_data->get_sample_count()));
  if (_error_cnt != 0) return;
  m_state->save_last_surrogate(_surrogate_id);
  rollup_step("state");
}

void family_walk_c::finish() {
  if (m_has_metric) {
    krel_log(krel_debug, "Writing the last surrogate's remaining rollup entries\n");
    flush();
  }
  rollup_step("walked");
  if (_error_cnt != 0 || !m_data->finish()) {
    krel_log(
        krel_error,
        "%s: error encountered rolling up shard %li-%li from column family %zu - failed to write to one or "
        "more rollup shards. Aborting rollup\n",
        m_store.kind_name(), start_s(), end_s(), m_family);
    return;
  }
  m_state->set_done();
  krel_log(krel_notice, "%s timeshard completed rolling up %lu metrics for column family %zu for %lu-%lu\n",
           m_store.kind_name(), m_metrics, m_family, m_pass.start_s, m_pass.end_s);
  rollup_step("done");
}

}  // namespace

void rollup_column_family(const rollup_pass_t &pass, size_t family) {
  const char *const kind = pass.store->kind_name();
  family_state_c state(pass.shard->get_dir_name(), family);
  if (pass.is_aborted()) return;
  if (state.is_done()) {
    krel_log(krel_notice,
             "timeshard column family %zu notes that %s rollup was already completed for %lu-%lu\n", family,
             kind, pass.start_s, pass.end_s);
    return;
  }
  if (!pass.forced && pass.shard->get_rollup_progress().is_dirty()) {
    krel_log(krel_notice, "timeshard column family %zu notes that %s timeshard rollup is dirty for %lu-%lu\n",
             family, kind, pass.start_s, pass.end_s);
    return;
  }
  const uint64_t oldest_s = pass.store->oldest_retention_s ? pass.store->oldest_retention_s() : 0;
  if (pass.end_s < oldest_s) {
    krel_log(krel_notice,
             "timeshard column family %zu being skipped because raw %s shard is entirely before retention "
             "window for %lu-%lu - earliest accepted epoch is %lu\n",
             family, kind, pass.start_s, pass.end_s, oldest_s);
    state.set_done();
    return;
  }
  family_walk_c(pass, family, &state).run();
}

}  // namespace db::raw
