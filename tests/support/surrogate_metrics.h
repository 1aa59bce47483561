#pragma once
// Metrics for tests of the surrogate database.

#include <cstring>
#include <string>

#include "util/metric_locator.h"

inline metric_locator_sp make_metric(const std::string &name, uint8_t check = 1, int32_t account = 1,
                                     velmar_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC) {
  uint8_t uuid[16] = {0xab, 0xcd, 0xef};
  uuid[15] = check;
  const mem_reader_t reader = {name.data(), name.size()};
  auto metric = metric_locator_adopt(velmar_metric_locator_create_full(account, type, uuid, &reader));
  krel_assert(metric);
  return metric;
}

// As stored: with the id that a database gave it.
inline metric_locator_sp make_stored_metric(uint64_t id, const std::string &name, uint8_t check = 1,
                                            int32_t account = 1,
                                            velmar_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC) {
  auto metric = make_metric(name, check, account, type);
  velmar_metric_locator_set_surrogate_id(metric.get(), id);
  return metric;
}

inline std::string name_of(const metric_locator_sp &metric) {
  return metric_locator_c(metric, false).get_name_with_tags().data();
}
