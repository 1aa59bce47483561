#pragma once
// The door to a raw store for writers: a single-thread job queue that takes samples to the shards of their
// times. Batches that arrive while it is busy are joined: one write for each shard and turn, whatever the
// number of batches. A sample for whose time there is no shard is an error of that sample; the rest goes on.

#include <vector>

#include "db/raw/raw_shard_factory.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev.h"

namespace db::raw {

// Safe from any thread. Spans and entries stay the caller's until on_complete.
class raw_writer_asynch_shim_c : public raw_writer_asynch_c {
 public:
  raw_writer_asynch_shim_c(raw_shard_factory_c *factory, krelev_jobq_t *jobq)
      : m_factory(factory), m_jobq(jobq) {}

  void write_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) override;
  void write_prev_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) override {
    write_set_asynch(entries, count, closure);
  }
  void write_numeric_asynch(std::span<const nom_sample_t> samples, is_raw_write_closure_t *closure) override;

 private:
  struct batch_t {
    std::span<const nom_sample_t> samples;
    is_raw_write_closure_t *closure;
  };
  void drain();

  raw_shard_factory_c *const m_factory;
  krelev_jobq_t *const m_jobq;
  krel_mutex_c m_mutex;
  std::vector<batch_t> m_waiting GUARDED_BY(m_mutex);
  bool m_scheduled GUARDED_BY(m_mutex) = false;
};

// Writes an array of entries to whichever shards they belong to; sorts them by time. on_complete runs once,
// after the last shard has ended.
void asynch_entry_batch_write(raw_shard_factory_c *factory, raw_entry_c *entries, size_t count,
                              is_raw_write_closure_t *closure);

}  // namespace db::raw
