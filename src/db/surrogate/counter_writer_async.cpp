#include "db/surrogate/counter_writer_async.h"

#include "platform/krel/base/krel_hyperloglog.h"

namespace db::surrogate {

namespace {

constexpr uint64_t PERIOD_US = 300'000'000;
constexpr uint64_t AGE_LIMIT_US = 600'000'000;
constexpr int PRECISION = 12;

}  // namespace

void krel_hyperloglog_free_t::operator()(krel_hyperloglog_t *hll) const {
  krel_hyperloglog_destroy(hll);
}

counter_writer_async_c::counter_writer_async_c(std::shared_ptr<writer_asynch_c> writer,
                                               std::shared_ptr<lookup_synch_c> lookup, const clock_c &clock)
    : skeleton_decorator_lookup_synch_c(std::move(lookup)), _writer_asynch(std::move(writer)), _clock(clock) {}

counter_writer_async_c::~counter_writer_async_c() = default;

void counter_writer_async_c::write_surrogate_set_asynch(write_entry_c *entries, size_t count,
                                                        wrote_cb_f wrote_cb, write_error_cb_f error_cb,
                                                        void *closure) {
  track_count_estimates(entries, count);
  _writer_asynch->write_surrogate_set_asynch(entries, count, wrote_cb, error_cb, closure);
}

// Starts a new period when the current one is over.
void counter_writer_async_c::rotate() {
  const uint64_t now = _clock.monotonic_us();
  count_estimate_t displaced;  // goes when the lock is open again
  _count_lock.seek_lock();
  if (!_count_estimates[0].hll || now - _count_estimates[0].creation_us >= PERIOD_US) {
    count_estimate_t fresh;
    fresh.hll.reset(krel_hyperloglog_alloc(PRECISION));
    fresh.creation_us = now;
    _count_lock.upgrade();
    displaced = std::exchange(_count_estimates[1], std::exchange(_count_estimates[0], std::move(fresh)));
    _count_lock.downgrade();
  }
  _count_lock.seek_unlock();
}

void counter_writer_async_c::track_count_estimates(const write_entry_c *entries, size_t count) {
  rotate();
  const progressive_read_guard_c guard(_count_lock);
  krel_hyperloglog_t *hll = _count_estimates[0].hll.get();
  for (size_t i = 0; i < count; ++i) {
    const velmar_metric_locator_t *ml = entries[i].get_key().get_metric_locator().get();
    krel_hyperloglog_add(hll, velmar_metric_locator_get_name_with_tags(ml),
                         velmar_metric_locator_get_name_len_with_tags(ml));
  }
}

uint64_t counter_writer_async_c::get_count_estimate() {
  const uint64_t now = _clock.monotonic_us();
  const progressive_read_guard_c guard(_count_lock);
  for (const int i : {1, 0}) {
    const count_estimate_t &estimate = _count_estimates[i];
    if (estimate.hll && now - estimate.creation_us < AGE_LIMIT_US)
      return krel_hyperloglog_size(estimate.hll.get());
  }
  return 0;
}

}  // namespace db::surrogate
