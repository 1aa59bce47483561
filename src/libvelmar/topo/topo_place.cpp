// Placement: from a key to the ordered list of its owners.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/topo_hash.h"

namespace {

constexpr uint8_t SIDE_BIT = 0x80;
constexpr size_t NAME_KEY_SIZE = 4134;  // uuid text, "-", the longest name and its terminator

inline uint64_t head(const uint8_t *location) {
  uint64_t word;
  memcpy(&word, location, sizeof(word));
  return __builtin_bswap64(word);
}

// The first ring point whose location is not below the key; wraps to 0.
int successor(const topo_config *tc, const uint8_t *key) {
  const auto &ring = tc->fast_loc_ring;
  const fast_search_hints_t hint = tc->fast_search_hints[(key[0] << 6) | (key[1] >> 2)];
  int lower = hint.lower, upper = hint.upper + 1;
  const uint64_t key_head = head(key);
  while (lower < upper) {
    const int middle = lower + (upper - lower) / 2;
    const uint8_t *location = ring[static_cast<size_t>(middle)].data();
    const uint64_t point_head = head(location);
    const bool below =
        point_head != key_head ? point_head < key_head : memcmp(location, key, TOPO_LOCATION_SIZE) < 0;
    if (below)
      lower = middle + 1;
    else
      upper = middle;
  }
  return static_cast<size_t>(lower) == ring.size() ? 0 : lower;
}

// Walks a ring in whole steps and refuses to go round more than once.
class walker_c {
 public:
  walker_c(const topo_config *tc, int at)
      : m_tc(tc), m_size(static_cast<int>(tc->fast_slot_ring.size())), m_at(at) {}
  int at() const { return m_at; }
  host_config *node() const { return m_tc->fast_slot_ring[static_cast<size_t>(m_at)]; }
  bool top_bit() const { return m_tc->fast_loc_ring[static_cast<size_t>(m_at)][0] & SIDE_BIT; }
  void step() {
    krel_assert(++m_steps < m_size * TOPO_MAX_WRITE_COPIES);
    m_at = m_at + 1 == m_size ? 0 : m_at + 1;
  }

 private:
  const topo_config *m_tc;
  int m_size, m_at, m_steps = 0;
};

bool taken(host_config *const *loc, int count, const host_config *node) {
  for (int i = 0; i < count; i++)
    if (loc[i] == node) return true;
  return false;
}

}  // namespace

int topo_find_insertion_point_key(const topo_config *tc, const uint8_t key[TOPO_LOCATION_SIZE],
                                  host_config **loc, int count) {
  if (!tc) return 0;
  const int w = tc->w_count;
  const int n = count == 0 ? w : std::min(count, w);
  krel_assert(n >= 1);
  const int m = std::min(n, TOPO_MAX_WRITE_COPIES);
  const int ring_size = static_cast<int>(tc->fast_slot_ring.size());
  uint8_t k[TOPO_LOCATION_SIZE];
  memcpy(k, key, sizeof(k));
  int points[TOPO_MAX_WRITE_COPIES];
  for (int i = 0; i < m; i++) {
    const bool wants_b = k[0] & SIDE_BIT;
    const int wanted_side = !tc->use_side ? 0 : wants_b ? TOPO_RINGSIDE_B : TOPO_RINGSIDE_A;
    walker_c walker(tc, i >= 2 ? (points[i - 2] + 1) % ring_size : successor(tc, k));
    if (tc->use_side)
      while (walker.top_bit() != wants_b) walker.step();
    while (taken(loc, i, walker.node())) {
      const host_config *rejected = walker.node();
      do walker.step();
      while (walker.node() == rejected || walker.node()->ringside != wanted_side);
    }
    loc[i] = walker.node();
    points[i] = walker.at();
    k[0] ^= SIDE_BIT;
  }
  return m;
}

int topo_find_insertion_point_config_locator(const topo_config *tc, const velmar_metric_locator_t *locator,
                                             host_config **loc, int count) {
  return topo_find_insertion_point_key(tc, velmar_metric_locator_get_hash(locator), loc, count);
}

int topo_find_insertion_point_config(const topo_config *tc, const void *buf, size_t length, host_config **loc,
                                     int count) {
  topo_location_t key;
  topo_hash(buf, length, key.data());
  return topo_find_insertion_point_key(tc, key.data(), loc, count);
}

int topo_find_insertion_point(const void *buf, size_t length, host_config **loc, int count) {
  return topo_find_insertion_point_config(topo_active(), buf, length, loc, count);
}

namespace {

int find_by_name(const topo_config *tc, const topo_uuid_t &id, const char *metric_name, host_config **loc,
                 int count) {
  char uuid[37], key[NAME_KEY_SIZE];
  krel_uuid_unparse_lower(id.data(), uuid);
  const int length = snprintf(key, sizeof(key), "%s-%s", uuid, metric_name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(key)) return 0;
  return topo_find_insertion_point_config(tc, key, static_cast<size_t>(length), loc, count);
}

}  // namespace

int topo_find_insertion_point_name(const topo_uuid_t &id, const char *metric_name, host_config **loc,
                                   int count) {
  return find_by_name(topo_active(), id, metric_name, loc, count);
}

int topo_find_two(const topo_config *tc, const topo_uuid_t &id, const char *metric_name, host_config **h1,
                  host_config **h2) {
  host_config *loc[TOPO_MAX_WRITE_COPIES] = {};
  const int found = find_by_name(tc, id, metric_name, loc, 2);
  *h1 = loc[0];
  *h2 = loc[1];
  return found;
}

bool topo_is_local_to_topology(const velmar_metric_locator_t *locator, const topo_config *tc,
                               const topo_uuid_t &me, host_config **hc) {
  krel_assert(hc);
  const int count = topo_find_insertion_point_config_locator(tc, locator, hc, 0);
  return std::any_of(hc, hc + count, [&](const host_config *h) { return h->id == me; });
}

bool topo_is_mine(const velmar_metric_locator_t *locator) {
  host_config *loc[TOPO_MAX_WRITE_COPIES];
  return topo_is_local_to_topology(locator, topo_active(), topo_me(), loc);
}
