#pragma once
// Hash tables of metrics. For this room's sources only.

#include <array>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include "util/metric_locator.h"

namespace db::surrogate3 {

using locator_set_t =
    boost::unordered_flat_set<metric_locator_sp, metric_locator_key_hasher_t, metric_locator_key_equal_to_t>;
using id_to_locator_t = boost::unordered_flat_map<uint64_t, metric_locator_sp>;

// A metric by its identity hash alone, without an object for it.
using identity_t = std::array<uint8_t, 32>;
struct identity_hasher_t {
  using is_avalanching = void;
  size_t operator()(const identity_t &identity) const {
    size_t hash;
    memcpy(&hash, identity.data(), sizeof hash);
    return hash;
  }
};
using identity_to_id_t = boost::unordered_flat_map<identity_t, uint64_t, identity_hasher_t>;

inline identity_t identity_of(const velmar_metric_locator_t *ml) {
  identity_t identity;
  memcpy(identity.data(), velmar_metric_locator_get_hash(ml), identity.size());
  return identity;
}

}  // namespace db::surrogate3
