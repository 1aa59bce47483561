#include "be/rollup/mgr.h"

#include "db/ranged/readers.h"

namespace velmar_be_rollup {

using db::kv::code_e;

const db::kv::ranged_reader_c *get_ranged_reader() {
  return db::ranged::simple_dispatch_reader();
}
const db::kv::ranged_reader_c *get_ranged_synch_reader() {
  return get_ranged_reader();
}

code_e rollup_fetch(const metric_locator_sp &metric_locator, uint64_t start_ms, uint64_t end_ms,
                    uint64_t span_ms, const rollup_run_callback_t &callback) {
  const db::kv::ranged_reader_c *reader = get_ranged_reader();
  if (!reader) return code_e::INTERNAL;
  db::kv::ranged_c::key_c key;
  key.m_metric_locator = metric_locator;
  key.m_start = start_ms;
  key.m_end = end_ms;
  key.m_rollup_span = span_ms;
  key.m_is_valid = true;
  const db::kv::iter_synch_up iter = reader->find_synch(key);
  for (; iter->is_valid(); iter->next())
    if (!callback(iter->get_value())) return code_e::NONE;
  const db::kv::read_error_c &error = iter->get_error();
  return error.m_is_valid ? error.m_code : code_e::NONE;
}

}  // namespace velmar_be_rollup
