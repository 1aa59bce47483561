// From a topology document to a ring: checks, signature, points, search hints.

#include <arpa/inet.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/topo_hash.h"

namespace {

constexpr int DEFAULT_WRITE_COPIES = 2;
constexpr size_t MAX_DOCUMENT = 1024 * 1024;

struct xml_free_t {
  void operator()(xmlDoc *p) const { xmlFreeDoc(p); }
  void operator()(xmlXPathContext *p) const { xmlXPathFreeContext(p); }
  void operator()(xmlXPathObject *p) const { xmlXPathFreeObject(p); }
  void operator()(xmlChar *p) const { xmlFree(p); }
};
template <typename T>
using xml_p = std::unique_ptr<T, xml_free_t>;

// An attribute's value; `present` tells an empty one from a missing one.
std::string attribute(xmlNode *node, const char *name, bool *present) {
  const xml_p<xmlChar> value(xmlGetProp(node, reinterpret_cast<const xmlChar *>(name)));
  *present = value != nullptr;
  return value ? reinterpret_cast<const char *>(value.get()) : "";
}

long decimal(const std::string &text) {
  return std::clamp<long>(strtol(text.c_str(), nullptr, 10), std::numeric_limits<int>::min(),
                          std::numeric_limits<int>::max());
}

std::vector<xmlNode *> select(xmlDoc *document, const char *path) {
  std::vector<xmlNode *> nodes;
  const xml_p<xmlXPathContext> context(xmlXPathNewContext(document));
  if (!context) return nodes;
  const xml_p<xmlXPathObject> found(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(path), context.get()));
  if (found && found->nodesetval)
    for (int i = 0; i < found->nodesetval->nodeNr; i++)
      if (found->nodesetval->nodeTab[i]->type == XML_ELEMENT_NODE)
        nodes.push_back(found->nodesetval->nodeTab[i]);
  return nodes;
}

bool resolve(const std::string &address, in_addr *result) {
  if (inet_pton(AF_INET, address.c_str(), result) == 1) return true;
  addrinfo hints{}, *list = nullptr;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  if (getaddrinfo(address.c_str(), nullptr, &hints, &list) != 0 || !list) return false;
  *result = reinterpret_cast<sockaddr_in *>(list->ai_addr)->sin_addr;
  freeaddrinfo(list);
  return true;
}

class compiler_c {
 public:
  compiler_c(xmlDoc *document, const char *hexhash) : m_document(document), m_hexhash(hexhash) {}

  std::unique_ptr<topo_config> compile() {
    m_tc = std::make_unique<topo_config>();
    if (read_root() && read_nodes() && check_sides() && build() && check_signature()) return std::move(m_tc);
    return nullptr;
  }
  const std::string &error() const { return m_error; }

 private:
  bool fail(std::string text) {
    m_error = std::move(text);
    return false;
  }
  const char *name() const { return m_hexhash ? m_hexhash : "-"; }
  bool read_root();
  bool read_nodes();
  bool read_node(xmlNode *node, host_config *host);
  bool read_number(xmlNode *node, const char *what, uint16_t *value, const std::string &id);
  bool read_side(xmlNode *node, host_config *host);
  bool check_sides();
  bool build();
  void sign();
  bool check_signature();

  xmlDoc *m_document;
  const char *m_hexhash;
  std::unique_ptr<topo_config> m_tc;
  std::string m_error;
  bool m_copies_defaulted = false;
  int m_on_a = 0, m_on_b = 0;
};

bool compiler_c::read_root() {
  const auto roots = select(m_document, "/nodes");
  if (roots.empty()) return false;
  bool present;
  const std::string tls = attribute(roots[0], "use_tls", &present);
  if (present && tls != "true" && tls != "false") {
    krel_log(krel_error, "topo \"%s\" has bad value for \"use_tls\"\n", name());
    return fail("bad value for \"use_tls\": it is \"true\" or \"false\"");
  }
  m_tc->use_tls = tls == "true";
  std::string copies = attribute(roots[0], "write_copies", &present);
  if (!present) {
    copies = attribute(roots[0], "n", &present);
    if (present)
      krel_log(krel_error, "topo \"%s\" using deprecated \"n\" instead of \"write_copies\"\n", name());
  }
  long w = present ? decimal(copies) : 0;
  if (w < 1) {
    w = DEFAULT_WRITE_COPIES;
    m_copies_defaulted = true;
  }
  if (w > TOPO_MAX_WRITE_COPIES)
    return fail(fmt::format("invalid topology: write_copies {} exceeds the max number of nodes {}", w,
                            TOPO_MAX_WRITE_COPIES));
  m_tc->w_count = static_cast<uint16_t>(w);
  return true;
}

bool compiler_c::read_nodes() {
  const auto nodes = select(m_document, "/nodes/node");
  if (nodes.empty()) return false;
  if (nodes.size() == 1 && m_copies_defaulted) m_tc->w_count = 1;
  if (nodes.size() < m_tc->w_count)
    return fail(fmt::format("invalid topology: write_copies {} > node count {}", m_tc->w_count, nodes.size()));
  if (nodes.size() > TOPO_MAX_NODES) return false;
  m_tc->host_count = static_cast<uint16_t>(nodes.size());
  m_tc->hosts = std::make_unique<host_config[]>(nodes.size());
  m_tc->hosts_unknown = m_tc->host_count;
  for (size_t i = 0; i < nodes.size(); i++)
    if (!read_node(nodes[i], &m_tc->hosts[i])) return false;
  return true;
}

bool compiler_c::read_number(xmlNode *node, const char *what, uint16_t *value, const std::string &id) {
  bool present;
  const long number = decimal(attribute(node, what, &present));
  if (number < 1 || number > 65535) return fail(fmt::format("node '{}': {} must > 0 and <= 65535\n", id, what));
  *value = static_cast<uint16_t>(number);
  return true;
}

bool compiler_c::read_side(xmlNode *node, host_config *host) {
  bool present;
  const std::string side = attribute(node, "side", &present);
  host->ringside = TOPO_RINGSIDE_BOTH;
  if (!present || side == "both") return true;
  if (side == "a") {
    host->ringside = TOPO_RINGSIDE_A;
    m_on_a++;
  } else if (side == "b") {
    host->ringside = TOPO_RINGSIDE_B;
    m_on_b++;
  } else {
    return fail(fmt::format("node '{}': side must be a,b, or both\n", host->id_str));
  }
  return true;
}

bool compiler_c::read_node(xmlNode *node, host_config *host) {
  bool has_id, has_port, has_apiport, has_address, has_weight;
  const std::string id = attribute(node, "id", &has_id);
  if (!has_id || krel_uuid_parse(id.c_str(), host->id.data()) != 0)
    return fail(fmt::format("bad id: {}\n", has_id ? id : "(null)"));
  krel_uuid_unparse_lower(host->id.data(), host->id_str);
  if (id != host->id_str)
    return fail(fmt::format("bad id: {} (should be all lower-case letters in uuid)\n", id));
  attribute(node, "port", &has_port);
  attribute(node, "apiport", &has_apiport);
  attribute(node, "weight", &has_weight);
  const std::string address = attribute(node, "address", &has_address);
  if (!has_port || !has_apiport || !has_address || !has_weight)
    return fail("port, apiport, address and weight must be specified.\n");
  if (!read_number(node, "weight", &host->weight, id) || !read_number(node, "port", &host->net_port, id) ||
      !read_number(node, "apiport", &host->net_apiport, id))
    return false;
  if (!resolve(address, &host->net_address))
    return fail(fmt::format("node '{}': can't interpret address {}\n", id, address));
  host->hostname = address;
  if (!read_side(node, host)) return false;
  host->topo = m_tc.get();
  host->active = TOPO_ACTIVE_UNKNOWN;
  host->url_prefix = fmt::format("http{}://{}:{}", m_tc->use_tls ? "s" : "", host->id_str, host->net_apiport);
  m_tc->connect_to.push_back(
      fmt::format("{}:{}:{}:{}", host->id_str, host->net_apiport, host->hostname, host->net_apiport));
  host->net_port = htons(host->net_port);
  host->net_apiport = htons(host->net_apiport);
  return true;
}

bool compiler_c::check_sides() {
  m_tc->use_side = m_on_a || m_on_b;
  if (!m_tc->use_side) return true;
  if (m_tc->w_count < 2) return fail("write_copies < # sides");
  if (m_on_a + m_on_b != m_tc->host_count) return fail("mixed sided/unsided config");
  const int needed = (m_tc->w_count + 1) / 2;
  if (m_on_a < needed || m_on_b < needed) return fail("|side| < write_copies");
  return true;
}

// SHA-256 over one record a node, in document order, and a trailer unless there are two copies.
void compiler_c::sign() {
  const size_t record_size = m_tc->use_side ? 42 : 40;
  uint8_t record[42];
  topo_hash_ctx_t ctx;
  topo_hash_ctx_init(&ctx);
  for (int i = 0; i < m_tc->host_count; i++) {
    const host_config &host = m_tc->hosts[i];
    memset(record, 0, sizeof(record));
    memcpy(record, host.id_str, 36);
    record[38] = static_cast<uint8_t>(host.weight >> 8);
    record[39] = static_cast<uint8_t>(host.weight);
    record[41] = static_cast<uint8_t>(host.ringside);
    topo_hash_ctx_update(&ctx, record, record_size);
  }
  if (m_tc->w_count != DEFAULT_WRITE_COPIES) {
    memset(record, 0, sizeof(record));
    record[38] = static_cast<uint8_t>(m_tc->w_count >> 8);
    record[39] = static_cast<uint8_t>(m_tc->w_count);
    topo_hash_ctx_update(&ctx, record, record_size);
  }
  topo_hash_ctx_final(&ctx, m_tc->signature.data());
  topo_hash_to_hex(m_tc->signature.data(), m_tc->hex_signature);
}

topo_location_t point_location(const host_config &host, uint16_t idx) {
  uint8_t input[38];
  memcpy(input, host.id_str, 36);
  input[36] = static_cast<uint8_t>(idx >> 8);
  input[37] = static_cast<uint8_t>(idx);
  topo_location_t location;
  topo_hash(input, sizeof(input), location.data());
  if (host.ringside == TOPO_RINGSIDE_A) location[0] &= 0x7f;
  if (host.ringside == TOPO_RINGSIDE_B) location[0] |= 0x80;
  return location;
}

void fill_search_hints(topo_config *tc) {
  const int last = static_cast<int>(tc->fast_loc_ring.size()) - 1;
  int next = 0, lower = 0;
  for (size_t v = 0; v < TOPO_SEARCH_HINTS; v++) {
    const auto prefix = [&](int i) {
      const topo_location_t &l = tc->fast_loc_ring[static_cast<size_t>(i)];
      return static_cast<size_t>((l[0] << 6) | (l[1] >> 2));
    };
    while (next <= last && prefix(next) <= v) next++;
    const int upper = std::min(next, last);
    tc->fast_search_hints[v] = {lower, upper};
    lower = upper;
  }
}

bool compiler_c::build() {
  for (int i = 0; i < m_tc->host_count; i++) {
    host_config *host = &m_tc->hosts[i];
    if (!m_tc->hostset.emplace(host->id, host).second) {
      krel_log(krel_error, "Same uuid '%s' for different nodes.\n", host->id_str);
      return fail(fmt::format("Same uuid '{}' for different nodes.\n", host->id_str));
    }
    for (uint32_t j = 0; j < host->weight; j++)
      m_tc->ring.push_back({point_location(*host, static_cast<uint16_t>(j)), host, static_cast<uint16_t>(j)});
  }
  std::sort(m_tc->ring.begin(), m_tc->ring.end(),
            [](const host_config_slot &a, const host_config_slot &b) { return a.location < b.location; });
  m_tc->fast_loc_ring.reserve(m_tc->ring.size());
  m_tc->fast_slot_ring.reserve(m_tc->ring.size());
  for (const host_config_slot &slot : m_tc->ring) {
    m_tc->fast_loc_ring.push_back(slot.location);
    m_tc->fast_slot_ring.push_back(slot.node);
  }
  fill_search_hints(m_tc.get());
  sign();
  return true;
}

bool compiler_c::check_signature() {
  if (m_hexhash && strcasecmp(m_hexhash, m_tc->hex_signature) != 0)
    return fail(fmt::format("invalid topology signature, should be {}\n", m_tc->hex_signature));
  return true;
}

}  // namespace

std::unique_ptr<topo_config> topo_compile(xmlDoc *document, const char *hexhash, std::string *err) {
  compiler_c compiler(document, hexhash);
  auto tc = compiler.compile();
  if (!tc) *err = compiler.error().empty() ? "XML parse error" : compiler.error();
  return tc;
}

std::unique_ptr<topo_config> topo_compile_text(std::string_view xml, const char *hexhash, std::string *err) {
  if (xml.size() > MAX_DOCUMENT) {
    *err = fmt::format("the document has {} bytes, more than {}", xml.size(), MAX_DOCUMENT);
    return nullptr;
  }
  const xml_p<xmlDoc> document(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "topology", nullptr,
                                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!document) {
    *err = "XML parse error";
    return nullptr;
  }
  return topo_compile(document.get(), hexhash, err);
}
