#pragma once
// One batch on its way to the writer.

#include <memory>

#include "db/surrogate3/gather_write.h"
#include "db/surrogate3/write_result_collector.h"

namespace db::surrogate3 {

struct write_batch_request_t {
  surrogate::write_entry_c *entries;
  size_t num_entries;
  surrogate::wrote_cb_f wrote_cb;
  surrogate::write_error_cb_f error_cb;
  void *closure;
  std::unique_ptr<write_result_collector_c> wrc;
  std::vector<uint8_t> flags;  // per entry, what changed
  gather_write_c gather;
  uint64_t gather_ticket = 0;
};

}  // namespace db::surrogate3
