#include "db/ranged/dispatch_reader.h"

#include <algorithm>

#include "db/ranged/run_iter.h"

namespace velmar_db_ranged_dispatch {

namespace {

using db::kv::code_e;
using db::kv::iter_synch_c;
using db::kv::iter_synch_up;
using db::kv::ranged_c;
using db::kv::ranged_reader_c;

// No data, for whatever reason, sends the search on to the other reader; an error does not.
bool has_failed(const iter_synch_c &iter) {
  const db::kv::read_error_c &error = iter.get_error();
  return error.m_is_valid && error.m_code != code_e::NO_SUCH_ROLLUP;
}

// Gaps that are searched one by one. When there are more, the rest of the range is read from the backup at
// once, and the gaps are cut out of that.
constexpr unsigned SINGLE_GAPS = 8;

class iter_handle_c : public db::ranged::iter_base_c {
 public:
  iter_handle_c(const ranged_c::key_c &key, const ranged_reader_c *primary, const ranged_reader_c *backup,
                bool all_gaps)
      : m_search_key(key), m_backup_reader(backup), m_all_gaps(all_gaps), m_primary(primary->find_synch(key)) {
    if (m_primary->is_valid()) {
      const ranged_c::value_c &run = m_primary->get_value();
      m_count = run.m_count;
      if (key.m_end > run.m_beg) m_count = std::max(m_count, (key.m_end - run.m_beg) / run.m_rollup_span);
      update_primary_pos();
    } else if (has_failed(*m_primary)) {
      fail(m_primary->get_error());
    } else {
      m_primary.reset();
      find_backup();
    }
  }

  void next() override {
    if (!is_valid()) return;
    if (!m_backup) return update_primary_pos();
    m_backup->next();
    if (!show_backup()) update_primary_pos();
  }

 private:
  bool holds_value(uint64_t pos) const {
    const ranged_c::value_c &run = m_primary->get_value();
    return pos < run.m_count && run.m_value[pos].type >= NNT_TYPE_INT32;
  }
  uint64_t time_of(uint64_t pos) const {
    return m_primary->get_value().m_beg + pos * m_primary->get_value().m_rollup_span;
  }
  uint64_t end_of_run() const;
  void update_primary_pos();
  void find_backup();
  bool show_backup();
  bool read_rest(uint64_t pos);
  void fail(db::kv::read_error_c error) {
    m_backup.reset();
    set_error(error.m_key, error.m_code);
  }

  ranged_c::key_c m_search_key;  // of the backup
  const ranged_reader_c *const m_backup_reader;
  const bool m_all_gaps;
  iter_synch_up m_primary;  // null: the backup has the whole range
  iter_synch_up m_backup;   // while it gives runs
  iter_synch_up m_rest;     // one run of the backup from m_rest_pos to the range's end, cell by cell
  uint64_t m_rest_pos = 0;
  unsigned m_gaps = 0;
  uint64_t m_count = 0;  // cells of the range; the primary's run can be shorter
  uint64_t m_pos = 0;    // the first cell not yet delivered
};

// Behind the cells from m_pos on that the primary delivers in one run.
uint64_t iter_handle_c::end_of_run() const {
  uint64_t end = m_pos;
  if (m_all_gaps) {
    while (holds_value(end)) end++;
    return end;
  }
  for (end = std::max(m_pos, m_primary->get_value().m_count); end > m_pos && !holds_value(end - 1);) end--;
  return end;
}

// To the next run at or after m_pos: the primary's, or the backup's for a gap.
void iter_handle_c::update_primary_pos() {
  while (m_primary && m_pos < m_count) {
    const uint64_t beg = m_pos;
    m_pos = end_of_run();
    if (m_pos > beg) {
      const ranged_c::value_c &run = m_primary->get_value();
      return set_run(m_search_key.m_metric_locator,
                     {time_of(beg), run.m_rollup_span, m_pos - beg, run.m_value + beg});
    }
    while (m_pos < m_count && !holds_value(m_pos)) m_pos++;
    if (m_rest || (++m_gaps == SINGLE_GAPS && m_pos < m_count && read_rest(beg))) {
      const ranged_c::value_c &rest = m_rest->get_value();
      return set_run(m_search_key.m_metric_locator,
                     {time_of(beg), rest.m_rollup_span, m_pos - beg, rest.m_value + (beg - m_rest_pos)});
    }
    m_search_key.m_start = time_of(beg);
    m_search_key.m_end = time_of(m_pos);
    m_backup = m_backup_reader->find_synch(m_search_key);
    if (show_backup()) return;
  }
  set_end();
}

// False when the backup does not have the rest as one run of cells like the primary's.
bool iter_handle_c::read_rest(uint64_t pos) {
  ranged_c::key_c key = m_search_key;
  key.m_start = time_of(pos);
  key.m_end = time_of(m_count);
  iter_synch_up rest = m_backup_reader->find_synch(key);
  if (!rest->is_valid()) return false;
  const ranged_c::value_c &run = rest->get_value();
  if (run.m_beg != key.m_start || run.m_rollup_span != m_primary->get_value().m_rollup_span ||
      run.m_count != m_count - pos)
    return false;
  m_rest = std::move(rest);
  m_rest_pos = pos;
  return true;
}

void iter_handle_c::find_backup() {
  m_backup = m_backup_reader->find_synch(m_search_key);
  if (!show_backup()) set_end();
}

// False when the backup has no more data.
bool iter_handle_c::show_backup() {
  if (m_backup->is_valid()) {
    set_run(m_search_key.m_metric_locator, m_backup->get_value());
    return true;
  }
  if (has_failed(*m_backup)) {
    fail(m_backup->get_error());
    return true;
  }
  m_backup.reset();
  return false;
}

}  // namespace

iter_synch_up ctx_c::find_synch(const ranged_c::key_c &key) const {
  return std::make_unique<iter_handle_c>(key, m_primary, m_backup, m_all_gaps);
}

std::optional<uint64_t> ctx_c::get_epoch(const ranged_c::key_c &key) const {
  const auto a = m_primary->get_epoch(key), b = m_backup->get_epoch(key);
  return a && b ? std::min(a, b) : a ? a : b;
}

std::optional<uint64_t> ctx_c::get_apocalypse(const ranged_c::key_c &key) const {
  return std::max(m_primary->get_apocalypse(key), m_backup->get_apocalypse(key));
}

}  // namespace velmar_db_ranged_dispatch
