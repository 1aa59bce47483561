// Topology files and the forms in which a topology is shown and fetched.

#include <arpa/inet.h>
#include <sys/stat.h>

#include "libvelmar/topo/topo.h"
#include "libvelmar/topo/topo_address.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/files.h"

namespace {

constexpr size_t MAX_PATH = 4096;
constexpr size_t MAX_PEER_DOCUMENT = 8192;
constexpr int FETCH_TIMEOUT_MS = 5000;

std::string printed_address(const host_config &host) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &host.net_address, text, sizeof(text)) ? text : "???";
}

// Attribute values may hold anything that XML lets through; quotes and the like go back as entities.
std::string xml_escape(std::string_view text) {
  std::string out;
  for (const char c : text) switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  return out;
}

std::string document_text(const topo_config *tc) {
  const krel_shared_lock_c lock(topo_address_mutex());
  std::string text = fmt::format("<nodes write_copies=\"{}\">\n", tc->w_count);
  for (int i = 0; i < tc->host_count; i++) {
    const host_config &h = tc->hosts[i];
    text +=
        fmt::format("  <node id=\"{}\"\n        address=\"{}\"\n        apiport=\"{}\"\n        port=\"{}\"\n",
                    h.id_str, xml_escape(printed_address(h)), ntohs(h.net_apiport), ntohs(h.net_port));
    if (tc->use_side)
      text += fmt::format("        weight=\"{}\"\n        side=\"{}\"/>\n", h.weight,
                          topo_host_ringside_str(h.ringside));
    else
      text += fmt::format("        weight=\"{}\"/>\n", h.weight);
  }
  return text + "</nodes>\n";
}

}  // namespace

std::string topo_directory() {
  std::string path;
  if (!krel_conf_get_string(KREL_CONF_ROOT, "/velmar/topology/@path|/velmar/include/topology/@path", &path))
    path = ".";
  if (!path.empty() && path[0] == '/') return path;
  const std::string conf = krel_conf_config_filename();
  const size_t slash = conf.rfind('/');
  const std::string base = slash == std::string::npos ? "." : conf.substr(0, slash);
  return path == "." || path.empty() ? base : base + "/" + path;
}

std::string topo_find_topo_file(std::string_view hex) {
  const std::string path = fmt::format("{}/{}", topo_directory(), hex);
  struct stat st;
  return path.size() < MAX_PATH && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? path : "";
}

int topo_save(const topo_config *tc) {
  const std::string path = topo_find_topo_file(tc->hex_signature);
  if (path.empty()) {
    krel_log(krel_error, "topology %s has no file to save to\n", tc->hex_signature);
    return -1;
  }
  if (const std::error_code code =
          util::io::atomic_replace(path, document_text(tc), util::io::system_files(), 0664)) {
    krel_log(krel_error, "cannot save topology %s: %s\n", path.c_str(), code.message().c_str());
    return -1;
  }
  return 0;
}

int topo_update_ip(topo_config *tc, const topo_uuid_t &id, const char *ip, uint16_t port, uint16_t apiport) {
  in_addr address;
  const auto it = tc->hostset.find(id);
  if (it == tc->hostset.end() || port == 0 || apiport == 0 || inet_pton(AF_INET, ip, &address) != 1) return -1;
  const krel_exclusive_lock_c lock(topo_address_mutex());
  host_config *host = it->second;
  host->net_address = address;
  host->hostname = ip;
  host->net_port = htons(port);
  host->net_apiport = htons(apiport);
  host->url_prefix = fmt::format("http{}://{}:{}", tc->use_tls ? "s" : "", host->id_str, apiport);
  const size_t index = static_cast<size_t>(host - tc->hosts.get());
  tc->connect_to[index] = fmt::format("{}:{}:{}:{}", host->id_str, apiport, host->hostname, apiport);
  return 0;
}

std::string topo_nodes_xml(const topo_config *tc, host_config *const *nodes, int count) {
  const krel_shared_lock_c lock(topo_address_mutex());
  std::string text = fmt::format("<nodes write_copies=\"{}\">\n", tc->w_count);
  for (int i = 0; i < count; i++) {
    const host_config &h = *nodes[i];
    text +=
        fmt::format("<node id=\"{}\" address=\"{}\" port=\"{}\" apiport=\"{}\" weight=\"{}\" side=\"{}\"{}/>\n",
                    h.id_str, printed_address(h), ntohs(h.net_port), ntohs(h.net_apiport), h.weight,
                    topo_host_ringside_str(h.ringside), "");
  }
  return text + "</nodes>\n";
}

std::string topo_nodes_json(const topo_config *tc, host_config *const *nodes, int count) {
  const krel_shared_lock_c lock(topo_address_mutex());
  std::string text = count ? "" : "[";
  for (int i = 0; i < count; i++) {
    const host_config &h = *nodes[i];
    text += fmt::format(
        "{}{{\"id\":\"{}\",\"address\":\"{}\",\"port\":{},\"apiport\":{},\"weight\":{},\"n\":{},\"write_"
        "copies\":{},"
        "\"side\":\"{}\"{}}}",
        i ? ',' : '[', h.id_str, printed_address(h), ntohs(h.net_port), ntohs(h.net_apiport), h.weight,
        tc->w_count, tc->w_count, topo_host_ringside_str(h.ringside), "");
  }
  return text + "]";
}

namespace {

struct ring_text_t {
  std::string text;
  bool json;
};

int add_point(const topo_config *, const host_config *host, int idx, const topo_location_t &, double percentage,
              void *thunk) {
  auto *out = static_cast<ring_text_t *>(thunk);
  if (out->json)
    out->text += fmt::format("{}{{\"id\":\"{}\",\"idx\":{},\"location\":{:f}}}", out->text.empty() ? '[' : ',',
                             host->id_str, idx, percentage);
  else
    out->text +=
        fmt::format("<vnode id=\"{}\" idx=\"{}\" location=\"{:f}\"/>\n", host->id_str, idx, percentage);
  return 0;
}

}  // namespace

std::string topo_ring_xml(const topo_config *tc) {
  ring_text_t out{fmt::format("<nodes write_copies=\"{}\">\n", tc->w_count), false};
  ring_apply(tc, &out, add_point);
  return out.text + "</nodes>\n";
}

std::string topo_ring_json(const topo_config *tc) {
  ring_text_t out{"", true};
  ring_apply(tc, &out, add_point);
  return out.text + "]";
}

std::unique_ptr<topo_config> velmar_client_get_topo(const char *host, const char *hash) {
  peer_request_t request;
  request.url = fmt::format("{}/topology/xml/{}", host, hash);
  request.timeout_ms = FETCH_TIMEOUT_MS;
  topo_curl_setup(&request, nullptr);
  std::string body;
  const peer_result_t result = peer_http()->perform(
      request,
      [&](std::string_view piece) {
        if (body.size() + piece.size() > MAX_PEER_DOCUMENT) return false;
        body += piece;
        return true;
      },
      nullptr);
  if (!result.ok()) {
    krel_log(krel_error, "velmar_client_get_topo from %s failed - code %d (%s), httpcode %ld\n", host,
             result.code, result.error.c_str(), static_cast<long>(result.httpcode));
    return nullptr;
  }
  std::string err;
  auto tc = topo_compile_text(body, hash, &err);
  if (!tc && err == "XML parse error") {
    krel_log(krel_error, "error parsing xml memory in velmar_client_get_topo - len %d\n",
             static_cast<int>(body.size()));
    krel_log(krel_error, "error parsing xml memory - buffer was -%s-\n", body.c_str());
  } else if (!tc) {
    krel_log(krel_error, "topology compiler error: %s\n", err.c_str());
  }
  return tc;
}
