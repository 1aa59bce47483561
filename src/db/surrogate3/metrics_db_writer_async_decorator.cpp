#include "db/surrogate3/metrics_db_writer_async_decorator.h"

#include "db/surrogate3/codec/id_set.h"
#include "db/surrogate3/gather_write.h"

namespace db::surrogate3 {

using surrogate::value_manager_c;
using surrogate::value_reader_c;

// A batch that is being written.
struct metrics_db_writer_async_decorator_c::write_t {
  struct before_t {
    int32_t account_id;
    bool was_canonical;
  };
  metrics_db_writer_async_decorator_c *decorator;
  std::vector<before_t> before;  // per entry
  surrogate::wrote_cb_f wrote_cb;
  surrogate::write_error_cb_f error_cb;
  void *closure;
};

void metrics_db_writer_async_decorator_c::write_surrogate_set_asynch(surrogate::write_entry_c *entries,
                                                                     size_t count,
                                                                     surrogate::wrote_cb_f wrote_cb,
                                                                     surrogate::write_error_cb_f error_cb,
                                                                     void *closure) {
  if (!_metric_index_facade)
    return _wrapped_writer_async->write_surrogate_set_asynch(entries, count, wrote_cb, error_cb, closure);
  auto write = std::make_unique<write_t>(write_t{this, {}, wrote_cb, error_cb, closure});
  write->before.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const metric_locator_sp &locator = entries[i].get_key().get_metric_locator();
    write->before.push_back({velmar_metric_locator_get_account_id(locator.get()),
                             velmar_metric_locator_is_canonical(locator.get())});
  }
  _wrapped_writer_async->write_surrogate_set_asynch(
      entries, count, wrote,
      [](const surrogate::key_c &key, void *passthrough, void *c) {
        const auto *w = static_cast<const write_t *>(c);
        if (w->error_cb) w->error_cb(key, passthrough, w->closure);
      },
      write.release());
}

void metrics_db_writer_async_decorator_c::wrote(value_manager_c *manager, value_reader_c *reader,
                                                void *closure) {
  const std::unique_ptr<write_t> write(static_cast<write_t *>(closure));
  write->decorator->index_written(*write, reader);
  write->wrote_cb(manager, reader, write->closure);
}

void metrics_db_writer_async_decorator_c::index_written(const write_t &write, value_reader_c *reader) {
  id_set_c already_seen;
  const surrogate::value_c *values = reader->get_values();
  for (size_t i = 0; i < reader->get_count(); ++i) {
    const metric_locator_sp &locator = values[i].get_orig_key().get_metric_locator();
    const uint64_t id = values[i].get_surrogate_id();
    krel_assert(id != surrogate::ID_NONE);
    if (!already_seen.add_checked(id) || !is_live_canonical(locator)) continue;  // erased meanwhile
    const write_t::before_t &before = write.before[i];
    if (before.was_canonical && before.account_id != velmar_metric_locator_get_account_id(locator.get())) {
      const metric_locator_sp moved = metric_locator_adopt(velmar_metric_locator_clone(locator.get()));
      velmar_metric_locator_set_accountid(moved.get(), before.account_id);
      velmar_metric_locator_set_surrogate_id(moved.get(), id);
      _metric_index_facade->update(metric_index_update_e::remove, moved);
    }
    _metric_index_facade->update(metric_index_update_e::insert, locator);
    // Whoever erases takes the mark first and updates the index then. If that came before the insertion, the
    // metric would stay in the index.
    if (!velmar_metric_locator_is_canonical(locator.get()))
      _metric_index_facade->update(metric_index_update_e::remove, locator);
  }
}

std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>>
metrics_db_writer_async_decorator_c::batch_erase(std::span<const uint64_t> ids) {
  auto result = skeleton_decorator_lookup_synch_c::batch_erase(ids);
  if (_metric_index_facade)
    for (const metric_locator_sp &locator : result.first)
      _metric_index_facade->update(metric_index_update_e::remove, locator);
  return result;
}

}  // namespace db::surrogate3
