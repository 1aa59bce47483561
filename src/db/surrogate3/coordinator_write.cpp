// Writes and deletes: from the caller's thread to the writer's and back on a callback thread.
#include "db/surrogate3/delegate_split.h"

namespace db::surrogate3 {

namespace {

// Batches are joined up to this many entries, so that no acknowledgement waits for an endless commit.
constexpr size_t JOINED_ENTRIES_MAX = 65536;

}  // namespace

void coordinator_c::write_surrogate_set_asynch(surrogate::write_entry_c *entries, size_t count,
                                               surrogate::wrote_cb_f wrote_cb,
                                               surrogate::write_error_cb_f error_cb, void *closure) {
  krel_assert(!_jobq_delegates.on_own_thread());
  auto request = std::make_unique<write_batch_request_t>(write_batch_request_t{
      entries, count, wrote_cb, error_cb, closure, std::make_unique<write_result_collector_c>(count),
      std::vector<uint8_t>(count), gather_write_c(entries, count), _gathers.begin()});
  // a new metric is about to be known: that the files do not have it is not worth remembering
  request->gather.prime_canonical_locators(
      [this](const locators_t &wanted, std::vector<metric_locator_sp> *found) {
        resolve(wanted, false, found);
      });
  {
    const krel_lock_c lock(_pending_mutex);
    _pending.push_back(std::move(request));
  }
  const bool taken = _jobq_writer.submit([this] { drain_write_queue(); });
  krel_assert(taken);
}

// Writer's thread. Takes what waits, in order; whoever submitted for a batch that was taken before finds less
// or nothing left.
void coordinator_c::drain_write_queue() {
  std::vector<std::unique_ptr<write_batch_request_t>> joined;
  {
    const krel_lock_c lock(_pending_mutex);
    size_t taken = 0, entries = 0;
    while (taken < _pending.size() &&
           (taken == 0 || entries + _pending[taken]->num_entries <= JOINED_ENTRIES_MAX))
      entries += _pending[taken++]->num_entries;
    const auto end = _pending.begin() + static_cast<ptrdiff_t>(taken);
    joined.assign(std::make_move_iterator(_pending.begin()), std::make_move_iterator(end));
    _pending.erase(_pending.begin(), end);
  }
  if (joined.empty()) return;
  for (const auto &request : joined) _surrogate_write_delegate->write(request.get());
  _surrogate_write_delegate->commit_write();
  for (auto &request : joined)
    _jobq_callbacks.submit([done = std::move(request)] {
      done->wrote_cb(default_value_manager(), done->wrc.release(), done->closure);
    });
}

std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> coordinator_c::batch_erase(
    std::span<const uint64_t> ids) {
  krel_assert(!_jobq_writer.on_own_thread());
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> result;
  for (size_t at = 0; at < ids.size(); at += _max_page_size) {
    const auto run = ids.subspan(at, std::min(_max_page_size, ids.size() - at));
    submit_on(_jobq_writer, [&] { erase_run(run, &result.first, &result.second); });
  }
  return result;
}

// Writer's thread. The readers forget the metrics before the tombstones are written: nobody can find one that
// the disk no longer has. A batch on its way that found one before sees that its mark is gone.
void coordinator_c::erase_run(std::span<const uint64_t> ids, std::vector<metric_locator_sp> *erased,
                              std::vector<uint64_t> *fails) {
  std::vector<metric_locator_sp> evicted(ids.size());
  const std::vector<places_t> owners = split(ids.size(), [&](size_t i) { return choose_delegate(ids[i]); });
  run_on_delegates(owners, [&](lookup_delegate_c &delegate, const places_t &places) {
    for (const uint32_t place : places) evicted[place] = delegate.evict_locator(ids[place]);
  });
  const std::vector<places_t> by_key =
      split(ids.size(), [&](size_t i) { return evicted[i] ? choose_delegate(evicted[i].get()) : NO_DELEGATE; });
  run_on_delegates(by_key, [&](lookup_delegate_c &delegate, const places_t &places) {
    for (const uint32_t place : places) delegate.evict_locator(evicted[place].get());
  });
  const size_t first = erased->size();
  for (size_t i = 0; i < ids.size(); ++i) {
    if (evicted[i])
      erased->push_back(std::move(evicted[i]));
    else
      fails->push_back(ids[i]);
  }
  _surrogate_write_delegate->write_tombstones(std::span(*erased).subspan(first));
}

}  // namespace db::surrogate3
