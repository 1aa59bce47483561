#pragma once
// Estimates how many distinct metrics are written, beside what it forwards.

#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_clock.h"
#include "util/progressive_lock.h"

struct krel_hyperloglog_t;

namespace db::surrogate {

struct krel_hyperloglog_free_t {
  void operator()(krel_hyperloglog_t *hll) const;
};

// One period's estimator.
struct count_estimate_t {
  std::unique_ptr<krel_hyperloglog_t, krel_hyperloglog_free_t> hll;
  uint64_t creation_us = 0;
};

class counter_writer_async_c : public skeleton_decorator_lookup_synch_c, public writer_asynch_c {
 public:
  counter_writer_async_c(std::shared_ptr<writer_asynch_c> writer, std::shared_ptr<lookup_synch_c> lookup,
                         const clock_c &clock = krel_system_clock());
  ~counter_writer_async_c() override;

  void write_surrogate_set_asynch(write_entry_c *entries, size_t count, wrote_cb_f wrote_cb,
                                  write_error_cb_f error_cb, void *closure) override;
  void checkpoint() override { _writer_asynch->checkpoint(); }
  // Of the last whole period of five minutes, else of the one under way; 0 when nothing was written lately.
  uint64_t get_count_estimate() override;

 private:
  void track_count_estimates(const write_entry_c *entries, size_t count);
  void rotate();

  const std::shared_ptr<writer_asynch_c> _writer_asynch;
  const clock_c &_clock;
  progressive_lock_c _count_lock;
  count_estimate_t _count_estimates[2] GUARDED_BY(_count_lock);  // the current one and the one before
};

}  // namespace db::surrogate
