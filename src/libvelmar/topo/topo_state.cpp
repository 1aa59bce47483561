// The topologies known, the pair in force, and which node this is.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "libvelmar/topo/topo.h"
#include "libvelmar/topo/topo_address.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev.h"

namespace {

constexpr useconds_t BARRIER_POLL_US = 1000000;

struct state_t {
  krel_mutex_c mutex;  // guards the table; entries never leave it
  std::map<topo_location_t, std::unique_ptr<topo_config>> topologies GUARDED_BY(mutex);
  std::atomic<topo_config *> active{nullptr}, next{nullptr};
  std::atomic<const host_config *> self{nullptr};
  topo_uuid_t my_id{}, ephemeral_id{};  // set at start, before threads read them
  bool ephemeral = false;
  std::string ca_chain;
};

state_t &state() {
  static state_t s;
  return s;
}

// A node that owns nothing must not be a member: its id would collide with the member's data.
void refuse_ephemeral_member(const topo_config *tc) {
  if (state().ephemeral && topo_contains(tc, state().ephemeral_id)) {
    krel_log_go_synch();
    krel_log(krel_error, "Dangerous ephemeral node id conflict.\n");
    exit(EXIT_FAILURE);
  }
}

host_config *member(const topo_config *tc, const topo_uuid_t &id) {
  if (!tc) return nullptr;
  const auto it = tc->hostset.find(id);
  return it == tc->hostset.end() ? nullptr : it->second;
}

std::atomic<int> *counter(topo_config *tc, int host_state) {
  switch (host_state) {
    case TOPO_ACTIVE_UNKNOWN:
      return &tc->hosts_unknown;
    case TOPO_ACTIVE_NEW:
      return &tc->hosts_new;
    case TOPO_ACTIVE_TRANSITIONING:
      return &tc->hosts_transitioning;
    case TOPO_ACTIVE_TRANSITIONED:
      return &tc->hosts_transitioned;
    default:
      return nullptr;
  }
}

}  // namespace

const char *topo_host_state_str(int host_state) {
  switch (host_state) {
    case TOPO_ACTIVE_UNKNOWN:
      return "unknown";
    case TOPO_ACTIVE_NEW:
      return "new";
    case TOPO_ACTIVE_TRANSITIONING:
      return "transitioning";
    case TOPO_ACTIVE_TRANSITIONED:
      return "transitioned";
    default:
      return "error";
  }
}

const char *topo_host_ringside_str(int side) {
  return side == TOPO_RINGSIDE_A ? "a" : side == TOPO_RINGSIDE_B ? "b" : "both";
}

void topo_init_globals() {
  state();
}

topo_config *topo_retain(std::unique_ptr<topo_config> tc) {
  topo_config *kept = tc.get();
  const krel_lock_c lock(state().mutex);
  if (!state().topologies.emplace(kept->signature, std::move(tc)).second)
    krel_fatal("hash collision %s in topology config?!\n", kept->hex_signature);
  return kept;
}

topo_config *topo_retrieve(const topo_location_t &signature) {
  const krel_lock_c lock(state().mutex);
  const auto it = state().topologies.find(signature);
  return it == state().topologies.end() ? nullptr : it->second.get();
}

topo_config *topo_retrieve_hex(std::string_view hex) {
  topo_location_t signature;
  if (hex.size() != 2 * signature.size()) return nullptr;
  for (size_t i = 0; i < hex.size(); i++) {
    const char c = hex[i];
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return nullptr;
    signature[i / 2] = static_cast<uint8_t>(i % 2 ? signature[i / 2] | digit : digit << 4);
  }
  return topo_retrieve(signature);
}

const char *topo_signature(const topo_config *tc, topo_location_t *out) {
  if (out) *out = tc ? tc->signature : topo_location_t{};
  return tc ? tc->hex_signature : "-";
}

topo_config *topo_active() {
  return state().active.load(std::memory_order_acquire);
}
topo_config *topo_next_active() {
  return state().next.load(std::memory_order_acquire);
}
topo_config *topo_target() {
  topo_config *next = topo_next_active();
  return next ? next : topo_active();
}

void topo_initialize(topo_config *conf, topo_config *next, const topo_uuid_t &me) {
  refuse_ephemeral_member(conf);
  refuse_ephemeral_member(next);
  state().active.store(conf, std::memory_order_release);
  state().next.store(next, std::memory_order_release);
  host_activate(conf, member(conf, me), TOPO_ACTIVE_TRANSITIONED);
  host_activate(next, member(next, me), conf ? TOPO_ACTIVE_TRANSITIONING : TOPO_ACTIVE_NEW);
}

int topo_activate_next(topo_config *conf) {
  if (topo_next_active()) return -1;
  refuse_ephemeral_member(conf);
  state().next.store(conf, std::memory_order_release);
  host_activate(conf, member(conf, topo_me()), TOPO_ACTIVE_TRANSITIONING);
  return 0;
}

int topo_transition() {
  topo_config *next = topo_next_active();
  if (!next) return -1;
  refuse_ephemeral_member(next);
  state().active.store(next, std::memory_order_release);
  state().next.store(nullptr, std::memory_order_release);
  host_activate(next, member(next, topo_me()), TOPO_ACTIVE_TRANSITIONED);
  krel_log(krel_notice, "TOPO(0): %s\n", topo_signature(topo_active()));
  krel_log(krel_notice, "TOPO(1): %s\n", topo_signature(topo_next_active()));
  return 0;
}

int topo_set_node(const topo_uuid_t &id) {
  state().my_id = id;
  const host_config *self = member(topo_next_active(), id);
  if (!self) self = member(topo_active(), id);
  if (self && state().ephemeral)
    krel_log(krel_error, "Dangerous ephemeral node id conflict: %s\n", self->id_str);
  state().self.store(self, std::memory_order_release);
  return self ? 0 : -1;
}

topo_uuid_t topo_me() {
  if (state().ephemeral) return state().ephemeral_id;
  const host_config *self = topo_self_node();
  return self ? self->id : state().my_id;
}

const host_config *topo_self_node() {
  return state().self.load(std::memory_order_acquire);
}
bool topo_i_am_ephemeral() {
  return state().ephemeral;
}
void topo_set_i_am_ephemeral(const topo_uuid_t &id) {
  state().ephemeral_id = id;
  state().ephemeral = true;
}

void host_activate(topo_config *conf, host_config *host, topo_host_state_t host_state) {
  if (!conf || !host) return;
  const int before = host->active.exchange(host_state);
  if (before == host_state) return;
  if (std::atomic<int> *c = counter(conf, before)) c->fetch_sub(1);
  counter(conf, host_state)->fetch_add(1);
  if (conf->hosts_unknown == 0 && conf->hosts_transitioning == 0) conf->reads_allowed = 1;
}

void topo_wait_on_readwrite_barrier(topo_config *tc) {
  krel_assert(!krelev_in_loop());
  while (!tc->reads_allowed) usleep(BARRIER_POLL_US);
}

int topo_size(const topo_config *tc) {
  return tc ? tc->host_count : 0;
}
int topo_n(const topo_config *tc) {
  return tc ? tc->w_count : 0;
}
int topo_w(const topo_config *tc) {
  return tc ? tc->w_count : 0;
}
bool topo_sided(const topo_config *tc) {
  return tc && tc->use_side;
}
bool topo_contains(const topo_config *tc, const topo_uuid_t &id) {
  return member(tc, id) != nullptr;
}

int topo_side(const topo_config *tc, const topo_uuid_t &id) {
  const host_config *host = nullptr;
  if (tc)
    host = member(tc, id);
  else if (const host_config *self = topo_self_node(); self && self->id == id)
    host = self;
  else
    host = member(topo_active(), id);
  return host ? host->ringside : 0;
}

namespace {

template <typename Wanted>
int collect(const topo_config *tc, host_config **loc, Wanted wanted) {
  int count = 0;
  for (int i = 0; i < topo_size(tc); i++)
    if (wanted(tc->hosts[i])) {
      if (loc) loc[count] = &tc->hosts[i];
      count++;
    }
  return count;
}

}  // namespace

int topo_get_all_nodes(const topo_config *tc, host_config **loc) {
  return collect(tc, loc, [](const host_config &) { return true; });
}

int topo_get_all_nodes_except_self(const topo_config *tc, host_config **loc) {
  const topo_uuid_t me = topo_me();
  return collect(tc, loc, [&](const host_config &h) { return h.id != me; });
}

int topo_get_just_self(const topo_config *tc, host_config **loc) {
  const topo_uuid_t me = topo_me();
  return collect(tc, loc, [&](const host_config &h) { return h.id == me; });
}

int topo_get_all_nodes_in_tcs(const topo_config *tc0, const topo_config *tc1, host_config **loc) {
  const int first = topo_get_all_nodes(tc0, loc);
  return first + collect(tc1, loc ? loc + first : nullptr,
                         [&](const host_config &h) { return !topo_contains(tc0, h.id); });
}

int topo_get_all_nodes_on_side(const topo_config *tc, host_config **loc, const topo_uuid_t &my_id, bool mine) {
  const int side = topo_sided(tc) ? topo_side(tc, my_id) : 0;
  return collect(tc, loc,
                 [&](const host_config &h) { return side == 0 ? mine : (h.ringside == side) == mine; });
}

int topo_randomize_hosts(const topo_config *tc, host_config **h, int count) {
  std::vector<std::pair<long, host_config *>> drawn;
  for (int i = 0; i < topo_size(tc); i++) drawn.emplace_back(random(), &tc->hosts[i]);
  std::sort(drawn.begin(), drawn.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  const int given = std::min(count, topo_size(tc));
  for (int i = 0; i < given; i++) h[i] = drawn[static_cast<size_t>(i)].second;
  return given;
}

int topo_apply(topo_config *tc, void *thunk, int (*function)(host_config *, void *)) {
  int sum = 0;
  for (int i = 0; i < topo_size(tc); i++) sum += function(&tc->hosts[i], thunk);
  return sum;
}

int ring_apply(const topo_config *tc, void *thunk,
               int (*function)(const topo_config *, const host_config *, int, const topo_location_t &, double,
                               void *)) {
  if (!tc) return 0;
  int sum = 0;
  for (const host_config_slot &slot : tc->ring) {
    double position = 0;
    for (size_t i = 8; i-- > 0;) position = (position + slot.location[i]) / 256;
    sum += function(tc, slot.node, slot.idx, slot.location, position * 100, thunk);
  }
  return sum;
}

krel_shared_mutex_c &topo_address_mutex() {
  static krel_shared_mutex_c mutex;
  return mutex;
}

std::string topo_host_config_url_prefix(const host_config *host) {
  const krel_shared_lock_c lock(topo_address_mutex());
  return host->url_prefix;
}

void topo_curl_setup(peer_request_t *request, const topo_config *tc) {
  request->ca_chain = tc && !tc->ca_chain.empty() ? tc->ca_chain : state().ca_chain;
  const krel_shared_lock_c lock(topo_address_mutex());
  if (tc) request->connect_to = tc->connect_to;
}

void topo_set_ca_chain(topo_config *tc, const char *ca_chain) {
  (tc ? tc->ca_chain : state().ca_chain) = ca_chain ? ca_chain : "";
}
