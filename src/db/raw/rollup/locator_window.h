#pragma once
// The locators of a family's metrics, asked for a window at a time: each question to the surrogate database is
// a hop between threads. One thread.

#include <memory>
#include <unordered_map>

#include "db/raw/nom/raw_interfaces.h"
#include "db/surrogate/surrogate.h"

namespace db::raw {

class locator_window_c {
 public:
  // `metrics`: a cursor over the family, for this window alone.
  locator_window_c(surrogate::lookup_synch_c *lookup, std::unique_ptr<raw_record_cursor_c> metrics)
      : m_lookup(lookup), m_metrics(std::move(metrics)) {}
  // Null: there is no such metric any more. Asked for in the order of keys. Blocking.
  metric_locator_sp find(uint64_t surrogate_id);

 private:
  void move_to(uint64_t surrogate_id);

  surrogate::lookup_synch_c *const m_lookup;
  const std::unique_ptr<raw_record_cursor_c> m_metrics;
  std::unordered_map<uint64_t, metric_locator_sp> m_locators;  // null: asked for, and not there
  uint64_t m_last = 0;                                         // of the window
};

}  // namespace db::raw
