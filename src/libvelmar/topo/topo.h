#pragma once
// Topologies: immutable descriptions of a cluster, named by their SHA-256 signature, and the placement of
// metrics on their rings.
//
// Threads: a compiled topology is shared without locks; only the activity states of its nodes and their
// addresses change, by the operations below. The pair in force is two atomic pointers, changed by the
// topology management only. Retained topologies live as long as the process.

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "libvelmar/net/peer_http.h"
#include "util/velmar_metric_locator.h"

struct _xmlDoc;

constexpr int TOPO_MAX_WRITE_COPIES = 10;
constexpr int TOPO_MAX_NODES = 128;
constexpr size_t TOPO_LOCATION_SIZE = 32;  // SHA-256
constexpr size_t TOPO_SEARCH_HINTS = 16384;

using topo_uuid_t = std::array<uint8_t, 16>;
using topo_location_t = std::array<uint8_t, TOPO_LOCATION_SIZE>;

enum topo_host_state_t {
  TOPO_ACTIVE_UNKNOWN = 0,
  TOPO_ACTIVE_NEW = 1,
  TOPO_ACTIVE_TRANSITIONING = 2,
  TOPO_ACTIVE_TRANSITIONED = 3,
};
const char *topo_host_state_str(int state);

enum topo_host_ringside_t { TOPO_RINGSIDE_BOTH = 0, TOPO_RINGSIDE_A = 1, TOPO_RINGSIDE_B = 2 };
const char *topo_host_ringside_str(int side);  // "both", "a", "b"

struct topo_config;

struct host_config {
  topo_uuid_t id;
  char id_str[37];  // lower case
  uint16_t weight;  // ring points
  in_addr net_address;
  uint16_t net_port;     // network byte order; gossip and peers
  uint16_t net_apiport;  // network byte order; REST
  std::atomic<int> active;
  topo_host_ringside_t ringside;
  topo_config *topo;
  std::string hostname;
  std::string url_prefix;  // the URL's host is the node's id; topo_curl_setup leads it to the address
};

struct host_config_slot {
  topo_location_t location;
  host_config *node;
  uint16_t idx;
};

struct fast_search_hints_t {
  int lower, upper;
};

struct topo_uuid_hash_t {
  size_t operator()(const topo_uuid_t &id) const {
    size_t value;
    __builtin_memcpy(&value, id.data(), sizeof(value));
    return value;
  }
};

struct topo_config {
  topo_location_t signature;
  char hex_signature[65];
  uint16_t w_count = 0, host_count = 0;
  std::unique_ptr<host_config[]> hosts;  // in document order
  std::vector<host_config_slot> ring;    // in ring order
  std::unordered_map<topo_uuid_t, host_config *, topo_uuid_hash_t> hostset;
  std::atomic<int> hosts_unknown{0}, hosts_new{0}, hosts_transitioning{0}, hosts_transitioned{0};
  std::atomic<int> reads_allowed{0};
  bool use_side = false, use_tls = false;
  std::string ca_chain;
  std::vector<std::string> connect_to;
  std::vector<topo_location_t> fast_loc_ring;
  std::vector<host_config *> fast_slot_ring;
  std::array<fast_search_hints_t, TOPO_SEARCH_HINTS> fast_search_hints;
};

// ---- construction and lookup
void topo_init_globals();
// Null on failure, with the reason in *err. `hexhash` may be null, else the signature must match it in any
// case.
std::unique_ptr<topo_config> topo_compile(_xmlDoc *document, const char *hexhash, std::string *err);
// The same from XML text; network and entities are off, size is bounded.
std::unique_ptr<topo_config> topo_compile_text(std::string_view xml, const char *hexhash, std::string *err);
topo_config *topo_retain(std::unique_ptr<topo_config> tc);  // the same signature twice is fatal
topo_config *topo_retrieve(const topo_location_t &signature);
topo_config *topo_retrieve_hex(std::string_view hex);  // 64 lower-case digits, else null
const char *topo_signature(const topo_config *tc, topo_location_t *out = nullptr);  // "-" of none
// ---- files
std::string topo_directory();                           // where the topology files lie
std::string topo_find_topo_file(std::string_view hex);  // "" when the file is missing
int topo_save(const topo_config *tc);                   // -1 on failure, logged
int topo_update_ip(topo_config *tc, const topo_uuid_t &id, const char *ip, uint16_t port, uint16_t apiport);
std::unique_ptr<topo_config> velmar_client_get_topo(const char *host, const char *hash);  // blocks up to 5 s
// Serialised forms for REST: the document with one element a node.
std::string topo_nodes_xml(const topo_config *tc, host_config *const *nodes, int count);
std::string topo_nodes_json(const topo_config *tc, host_config *const *nodes, int count);  // with brackets
std::string topo_ring_xml(const topo_config *tc);
std::string topo_ring_json(const topo_config *tc);

// ---- the pair in force, and this node
topo_config *topo_active();
topo_config *topo_next_active();
topo_config *topo_target();  // next if there is one, else active
void topo_initialize(topo_config *conf, topo_config *next, const topo_uuid_t &me);
int topo_activate_next(topo_config *conf);  // -1: a next topology is set already
int topo_transition();                      // -1: there is no next topology
int topo_set_node(const topo_uuid_t &id);   // 0 when found in next or active, else -1
topo_uuid_t topo_me();
const host_config *topo_self_node();  // null for a node that is in no topology in force
bool topo_i_am_ephemeral();
void topo_set_i_am_ephemeral(const topo_uuid_t &id);
void host_activate(topo_config *conf, host_config *host, topo_host_state_t state);
void topo_wait_on_readwrite_barrier(topo_config *tc);

// ---- placement: results in the caller's array (TOPO_MAX_WRITE_COPIES entries always suffice), their
// number as result. count 0 means the topology's write copies. Index 0 is the primary owner.
int topo_find_insertion_point_config_locator(const topo_config *tc, const velmar_metric_locator_t *locator,
                                             host_config **loc, int count);
int topo_find_insertion_point_key(const topo_config *tc, const uint8_t key[TOPO_LOCATION_SIZE],
                                  host_config **loc, int count);
int topo_find_insertion_point_config(const topo_config *tc, const void *buf, size_t length, host_config **loc,
                                     int count);
int topo_find_insertion_point(const void *buf, size_t length, host_config **loc, int count);
int topo_find_insertion_point_name(const topo_uuid_t &id, const char *metric_name, host_config **loc,
                                   int count);
int topo_find_two(const topo_config *tc, const topo_uuid_t &id, const char *metric_name, host_config **h1,
                  host_config **h2);
bool topo_is_mine(const velmar_metric_locator_t *locator);
bool topo_is_local_to_topology(const velmar_metric_locator_t *locator, const topo_config *tc,
                               const topo_uuid_t &me, host_config **hc);

// ---- lists of nodes; all 0 of a null topology. A null `loc` only counts.
int topo_size(const topo_config *tc);
int topo_n(const topo_config *tc);
int topo_w(const topo_config *tc);
bool topo_sided(const topo_config *tc);
bool topo_contains(const topo_config *tc, const topo_uuid_t &id);
int topo_side(const topo_config *tc, const topo_uuid_t &id);
int topo_get_all_nodes(const topo_config *tc, host_config **loc);
int topo_get_all_nodes_except_self(const topo_config *tc, host_config **loc);
int topo_get_just_self(const topo_config *tc, host_config **loc);
int topo_get_all_nodes_in_tcs(const topo_config *tc0, const topo_config *tc1, host_config **loc);
int topo_get_all_nodes_on_side(const topo_config *tc, host_config **loc, const topo_uuid_t &my_id, bool mine);
int topo_randomize_hosts(const topo_config *tc, host_config **h, int count);
int topo_apply(topo_config *tc, void *thunk, int (*function)(host_config *, void *));
// percentage: where the point lies on the ring, 0 to 100
int ring_apply(const topo_config *tc, void *thunk,
               int (*function)(const topo_config *, const host_config *, int idx,
                               const topo_location_t &location, double percentage, void *thunk));

// ---- HTTP to peers
std::string topo_host_config_url_prefix(const host_config *host);
void topo_curl_setup(peer_request_t *request, const topo_config *tc);
void topo_set_ca_chain(topo_config *tc, const char *ca_chain);  // a null tc: for all without one of their own
