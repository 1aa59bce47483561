#pragma once
// Keeps the tag index in step with what is written and erased.

#include "db/surrogate/surrogate.h"
#include "db/surrogate3/metric_index_facade.h"

namespace db::surrogate3 {

class metrics_db_writer_async_decorator_c : public surrogate::skeleton_decorator_lookup_synch_c,
                                            public surrogate::writer_asynch_c {
 public:
  // Without an index (null) everything is forwarded as it is.
  metrics_db_writer_async_decorator_c(std::shared_ptr<surrogate::writer_asynch_c> writer,
                                      std::shared_ptr<surrogate::lookup_synch_c> lookup,
                                      std::shared_ptr<metric_index_facade_c> metric_index_facade)
      : skeleton_decorator_lookup_synch_c(std::move(lookup)),
        _wrapped_writer_async(std::move(writer)),
        _metric_index_facade(std::move(metric_index_facade)) {}

  void write_surrogate_set_asynch(surrogate::write_entry_c *entries, size_t count,
                                  surrogate::wrote_cb_f wrote_cb, surrogate::write_error_cb_f error_cb,
                                  void *closure) override;
  void checkpoint() override { _wrapped_writer_async->checkpoint(); }
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t> ids) override;

 private:
  struct write_t;
  static void wrote(surrogate::value_manager_c *manager, surrogate::value_reader_c *reader, void *closure);
  void index_written(const write_t &write, surrogate::value_reader_c *reader);

  const std::shared_ptr<surrogate::writer_asynch_c> _wrapped_writer_async;
  const std::shared_ptr<metric_index_facade_c> _metric_index_facade;
};

}  // namespace db::surrogate3
