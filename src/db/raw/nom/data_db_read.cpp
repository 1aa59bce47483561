#include <rocksdb/c.h>

#include <algorithm>
#include <array>

#include "db/admin/rocksdb_error.h"
#include "db/raw/nom/data_db.h"
#include "db/raw/nom/data_db_position.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"

namespace velmar_db_raw_nom {

using db::raw::raw_iter_reader_asynch_c;
using db::raw::raw_key_c;
using db::raw::raw_reader_seek_e;

constexpr size_t PIECE_SAMPLES = 1024;

rocksdb_column_family_handle_t *data_db_c::family_handle(uint64_t surrogate_id) const {
  return m
      .column_family_handles[family_of(surrogate_id, static_cast<uint32_t>(m.column_family_handles.size()))];
}

std::unique_ptr<iter_wrapper_c> data_db_c::find_now(uint64_t surrogate_id, uint64_t ts_ms,
                                                    raw_reader_seek_e seek) {
  if (!open_shard()) return nullptr;
  krel_perftimer_t timer;
  krel_perftimer_start(&timer);
  auto iter = std::make_unique<iter_wrapper_c>(m_datatype, m.db, family_handle(surrogate_id), surrogate_id);
  if (!iter->find(ts_ms, seek) && iter->get_error().empty()) iter.reset();
  stats_set_hist_intscale(m_merge_state.stats.get_latency, krel_perftimer_elapsed(&timer), -9, 1);
  return iter;
}

void data_db_c::find_asynch(const raw_key_c &key, raw_reader_seek_e seek, db::raw::raw_iter_found_f found,
                            void *closure) {
  auto *const position = new position_t(found, closure, m_start_ms);  // goes with close_asynch
  position->set_key(key);
  const int64_t asked_ms = key.get_orig_key().get_timestamp().count();
  const auto first_ms = static_cast<int64_t>(m_start_ms);
  if (asked_ms >= first_ms || seek == db::raw::SEEK_NEXT_ON_MISS) {
    const auto ts_ms = static_cast<uint64_t>(std::max(asked_ms, first_ms));
    position->iter = find_now(key.get_surrogate_id(), ts_ms, seek);
  }
  invoke_cb(position);
}

bool data_db_c::read_numeric(uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                             const numeric_samples_f &on_samples, std::string *error) {
  const auto iter = find_now(surrogate_id, start_ms, db::raw::SEEK_NEXT_ON_MISS);
  if (iter == nullptr) return true;
  std::array<db::raw::nom_sample_t, PIECE_SAMPLES> piece;
  uint64_t total = 0;
  for (bool more = true; more && iter->is_valid();) {
    const size_t count = iter->take_numeric(end_ms, piece);
    more = count != 0 && on_samples({piece.data(), count});
    total += count;
    if (more && !iter->is_valid()) iter->next_block();
  }
  stats_add64(m_merge_state.stats.get_tuples, static_cast<int64_t>(total));
  *error = iter->get_error();
  return error->empty();
}

std::optional<db::raw::nom_sample_t> data_db_c::find_last_numeric(uint64_t surrogate_id, uint64_t from_ms,
                                                                  uint64_t before_ms, nulls_e nulls,
                                                                  std::string *error) {
  if (before_ms <= from_ms) return {};
  const auto iter = find_now(surrogate_id, before_ms - 1, db::raw::SEEK_PREV_ON_MISS);
  if (iter == nullptr) return {};
  for (bool found = iter->is_valid(); found; found = iter->do_prev()) {
    nom_position_value_t at;
    if (!iter->get_current_value(&at, error) || at.ts_ms < from_ms) return {};
    if (at.value.is_null && nulls == nulls_e::pass_over) continue;
    return db::raw::nom_sample_t{
        surrogate_id,    at.ts_ms, at.value.storage.v_uint64, at.generation, static_cast<char>(at.value.type),
        at.value.is_null};
  }
  *error = iter->get_error();
  return {};
}

// Fills the position from where its iterator stands.
void position_t::publish(stats_handle_t *tuples) {
  if (iter == nullptr || !iter->is_valid()) {
    if (iter != nullptr && !iter->get_error().empty()) {
      set_error(iter->get_error());
    } else {
      no_data();
    }
    iter.reset();
    return;
  }
  nom_position_value_t at;
  std::string error;
  if (!iter->get_current_value(&at, &error)) {
    krel_log(krel_error, "%s\n", error.c_str());
    set_error(std::move(error));
    iter.reset();
    return;
  }
  if (at.ts_ms < first_ms) {
    no_data();
    iter.reset();
    return;
  }
  value_to_fill().set_data_non_owner(at.value, at.generation);
  set_pos(at.ts_ms);
  stats_add64(tuples, 1);
}

// Calls back for this position, and for those that the callback asks for.
void data_db_c::invoke_cb(position_t *position) {
  for (;;) {
    position->publish(m_merge_state.stats.get_tuples);
    position->guard.nest();
    position->found(this, position, position->closure);
    switch (position->guard.unnest()) {
      case velmar_db_nonest::POSTPONED_NEXT:
        move(position, true);
        break;
      case velmar_db_nonest::POSTPONED_PREV:
        move(position, false);
        break;
      case velmar_db_nonest::POSTPONED_CLOSE:
        delete position;
        return;
      default:
        return;  // the position is somebody else's now
    }
  }
}

void data_db_c::move(position_t *position, bool forward) {
  if (position->iter == nullptr) return;
  if (forward && position->is_deleter()) {
    delete_passed(position);
  } else {
    forward ? position->iter->do_next() : position->iter->do_prev();
  }
}

void data_db_c::next_asynch(raw_iter_reader_asynch_c *reader) {
  auto *const position = static_cast<position_t *>(reader);
  if (!position->guard.will_seek(true)) return;
  move(position, true);
  invoke_cb(position);
}

void data_db_c::prev_asynch(raw_iter_reader_asynch_c *reader) {
  auto *const position = static_cast<position_t *>(reader);
  if (!position->guard.will_seek(false)) return;
  move(position, false);
  invoke_cb(position);
}

void data_db_c::close_asynch(raw_iter_reader_asynch_c *reader) {
  auto *const position = static_cast<position_t *>(reader);
  if (position->guard.will_close()) delete position;
}

}  // namespace velmar_db_raw_nom
