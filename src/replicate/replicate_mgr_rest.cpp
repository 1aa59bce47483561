// GET /state, /topology/..., /toporing/..., /locate/...; POST /topology/....

#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "global/velmar_features.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"
#include "replicate/replicate_mgr.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"
#include "util/io/files.h"

namespace {

constexpr size_t MAX_UPLOAD = 1024 * 1024;

std::string version_text;
std::function<replicate_mgr_lag_t()> lag_source;
std::string rollups_text;  // members of /state, with a comma behind

void answer_format(krel_http_session_t *session, bool json, const std::string &body) {
  krel_http_response_status_set(session, 200, "OK");
  krel_http_response_header_set(session, "Content-Type", json ? "application/json" : "text/xml");
  krel_http_response_option_set(session, KREL_HTTP_COMPRESS);
  krel_http_response_append(session, body.data(), body.size());
  krel_http_response_end(session);
}

int not_found(krel_http_session_t *session) {
  rest_req_not_found(session, "not found");
  return 0;
}

std::string rusage_text() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  const auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return fmt::format(
      "\"rusage.utime\":{:f},\"rusage.stime\":{:f},\"rusage.maxrss\":{},\"rusage.idrss\":{},\"rusage.minflt\":{"
      "},"
      "\"rusage.majflt\":{},\"rusage.nswap\":{},\"rusage.inblock\":{},\"rusage.oublock\":{},\"rusage.msgsnd\":{"
      "},"
      "\"rusage.msgrcv\":{},\"rusage.nsignals\":{},\"rusage.nvcsw\":{},\"rusage.nivcsw\":{}",
      seconds(r.ru_utime), seconds(r.ru_stime), r.ru_maxrss, r.ru_idrss, r.ru_minflt, r.ru_majflt, r.ru_nswap,
      r.ru_inblock, r.ru_oublock, r.ru_msgsnd, r.ru_msgrcv, r.ru_nsignals, r.ru_nvcsw, r.ru_nivcsw);
}

int replicate_mgr_rest_state(krel_http_rest_closure_t *restc, int, char **) {
  char me[KREL_UUID_STR_LEN + 1];
  krel_uuid_unparse_lower(topo_me().data(), me);
  const replicate_mgr_lag_t lag = lag_source ? lag_source() : replicate_mgr_lag_t{};
  std::string features;
  velmar_features_each([&](const std::string &name, const std::string &value) {
    features += (features.empty() ? "" : ",") + rest_json_quote(name) + ":" + rest_json_quote(value);
  });
  rest_json_answer(
      restc->http_ctx, 200, "OK",
      fmt::format("{{\"identity\":\"{}\",\"current\":\"{}\",\"next\":\"{}\",{}{},\"max_peer_lag\":{:f},\"avg_"
                  "peer_lag\":{:f},"
                  "\"features\":{{{}}},\"version\":{},\"application\":\"velmar\"}}\n",
                  me, topo_signature(topo_active()), topo_signature(topo_next_active()), rollups_text,
                  rusage_text(), lag.max_peer_lag, lag.avg_peer_lag, features, rest_json_quote(version_text)));
  return 0;
}

int replicate_mgr_rest_config(krel_http_rest_closure_t *restc, int, char **pats) {
  const topo_config *tc = topo_retrieve_hex(pats[1]);
  if (!tc) return not_found(restc->http_ctx);
  std::vector<host_config *> nodes(static_cast<size_t>(topo_size(tc)));
  const int count = topo_get_all_nodes(tc, nodes.data());
  const bool json = pats[0][0] == 'j';
  answer_format(restc->http_ctx, json,
                json ? topo_nodes_json(tc, nodes.data(), count) : topo_nodes_xml(tc, nodes.data(), count));
  return 0;
}

int replicate_mgr_rest_ring_config(krel_http_rest_closure_t *restc, int, char **pats) {
  const topo_config *tc = topo_retrieve_hex(pats[1]);
  if (!tc) return not_found(restc->http_ctx);
  const bool json = pats[0][0] == 'j';
  answer_format(restc->http_ctx, json, json ? topo_ring_json(tc) : topo_ring_xml(tc));
  return 0;
}

int replicate_mgr_rest_locate(krel_http_rest_closure_t *restc, int, char **pats) {
  topo_uuid_t uuid;
  const topo_config *tc = topo_target();
  if (!tc || krel_uuid_parse(pats[1], uuid.data()) != 0) return not_found(restc->http_ctx);
  mem_reader_t name;
  mem_reader_init_mem(&name, pats[2], strlen(pats[2]));
  velmar_metric_locator_t *locator = velmar_metric_locator_create(uuid.data(), &name, METRIC_TYPE_ANY);
  if (!locator) {
    krel_log(krel_error, "could not parse metric-name |%s|\n", pats[2]);
    return not_found(restc->http_ctx);
  }
  host_config *owners[TOPO_MAX_WRITE_COPIES];
  const int count = topo_find_insertion_point_config_locator(tc, locator, owners, 0);
  const bool json = pats[0][0] == 'j';
  std::string body;
  if (json) {
    std::string key(velmar_metric_locator_get_name_len_with_tags(locator) + 38, '\0');
    body = fmt::format("{{ \"key\": {},\n  \"location\": {}}}\n",
                       rest_json_quote(velmar_metric_locator_get_key(locator, key.data(), key.size())),
                       topo_nodes_json(tc, owners, count));
  } else {
    body = topo_nodes_xml(tc, owners, count);
  }
  velmar_metric_locator_deref(locator);
  answer_format(restc->http_ctx, json, body);
  return 0;
}

// ---- uploads. The body is collected on the loop; the work, which may resolve names and writes files, runs
// on the default queue, one upload at a time; the answer goes out on the loop again.

struct upload_t {
  krel_http_session_t *session;
  std::string body, hash, error;
  void (*work)(upload_t *);
};

krel_mutex_c &upload_mutex() {  // guards: check for a known topology, save, retain
  static krel_mutex_c mutex;
  return mutex;
}

void add_topology(upload_t *u) {
  const krel_lock_c lock(upload_mutex());
  if (topo_retrieve_hex(u->hash)) return;
  std::string err;
  auto tc = topo_compile_text(u->body, u->hash.c_str(), &err);
  if (!tc) {
    if (err == "XML parse error") {
      u->error = "xml is invalid";
    } else {
      krel_log(krel_error, "topology %s failed to compile: %s\n", u->hash.c_str(), err.c_str());
      u->error = err;
    }
  } else if (const auto code = util::io::atomic_replace(topo_directory() + "/" + u->hash, u->body)) {
    krel_log(krel_error, "Cannot save topology xml into %s\n", (topo_directory() + "/" + u->hash).c_str());
    u->error = "error saving topology";
  } else {
    topo_retain(std::move(tc));
  }
  if (!u->error.empty()) krel_log(krel_error, "Error on topo manager add: %s\n", u->error.c_str());
}

struct address_t {
  topo_uuid_t id;
  std::string ip;
  uint16_t port, apiport;
};

struct xml_free_t {
  void operator()(xmlDoc *p) const { xmlFreeDoc(p); }
  void operator()(xmlXPathContext *p) const { xmlXPathFreeContext(p); }
  void operator()(xmlXPathObject *p) const { xmlXPathFreeObject(p); }
};

std::string attribute(xmlNode *node, const char *name) {
  xmlChar *value = xmlGetProp(node, reinterpret_cast<const xmlChar *>(name));
  std::string text = value ? reinterpret_cast<const char *>(value) : "";
  xmlFree(value);
  return text;
}

bool read_address(xmlNode *node, const topo_config *tc, address_t *address) {
  uint64_t port = 0, apiport = 0;
  address->ip = attribute(node, "ip");
  if (krel_uuid_parse(attribute(node, "id").c_str(), address->id.data()) != 0 ||
      !topo_contains(tc, address->id) || !krel_parse_uint64(attribute(node, "port"), &port) ||
      !krel_parse_uint64(attribute(node, "apiport"), &apiport) || port == 0 || port > 65535 || apiport == 0 ||
      apiport > 65535)
    return false;
  address->port = static_cast<uint16_t>(port);
  address->apiport = static_cast<uint16_t>(apiport);
  return true;
}

// Reads every node before the first one is changed. An empty result is success.
std::string update_addresses(const std::string &body) {
  const std::unique_ptr<xmlDoc, xml_free_t> document(
      xmlReadMemory(body.data(), static_cast<int>(body.size()), "update", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  xmlNode *root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  if (!root) return "xml is invalid";
  topo_config *tc = topo_retrieve_hex(attribute(root, "topo"));
  if (!tc) return "hash does not exist";
  const std::unique_ptr<xmlXPathContext, xml_free_t> context(xmlXPathNewContext(document.get()));
  const std::unique_ptr<xmlXPathObject, xml_free_t> found(
      context ? xmlXPathEval(reinterpret_cast<const xmlChar *>("/update/node"), context.get()) : nullptr);
  if (!found || !found->nodesetval) return "couldn't find xml nodeset";
  if (found->nodesetval->nodeNr == 0) return "no nodes given";
  std::vector<address_t> addresses(static_cast<size_t>(found->nodesetval->nodeNr));
  for (size_t i = 0; i < addresses.size(); i++)
    if (!read_address(found->nodesetval->nodeTab[i], tc, &addresses[i])) return "xml format incorrect";
  for (const address_t &a : addresses)
    if (topo_update_ip(tc, a.id, a.ip.c_str(), a.port, a.apiport) != 0) return "xml format incorrect";
  return topo_save(tc) == 0 ? "" : "couldn't save file - check permissions";
}

void update_topology(upload_t *u) {
  const krel_lock_c lock(upload_mutex());
  u->error = update_addresses(u->body);
  if (!u->error.empty()) krel_log(krel_error, "Error on topo manager update: %s\n", u->error.c_str());
}

int upload_job(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *u = static_cast<upload_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) u->work(u);
  if (mask == KRELEV_ASYNCH_COMPLETE) krel_http_session_resume_after_float(u->session);
  return 0;
}

int upload_answer(krel_http_rest_closure_t *restc, int, char **) {
  const auto *u = static_cast<upload_t *>(restc->call_closure);
  if (u->error.empty())
    answer_format(restc->http_ctx, false, "");
  else
    rest_req_error(restc->http_ctx, u->error);
  return 0;
}

int collect_upload(krel_http_rest_closure_t *restc, const char *hash, void (*work)(upload_t *)) {
  if (!restc->call_closure) {
    restc->call_closure = new upload_t{restc->http_ctx, "", hash, "", work};
    restc->call_closure_free = [](void *closure) { delete static_cast<upload_t *>(closure); };
  }
  auto *u = static_cast<upload_t *>(restc->call_closure);
  int mask = 0;
  bool complete = false;
  if (!rest_get_upload(restc->http_ctx, &u->body, MAX_UPLOAD, &mask, &complete)) {
    rest_req_invalid(restc->http_ctx,
                     errno == EFBIG ? "the document is larger than 1 MiB" : "the upload is broken");
    return 0;
  }
  if (!complete) return mask;
  restc->fastpath = upload_answer;
  velmar_http_go_asynch(nullptr, upload_job, u, krel_http_session_connection(restc->http_ctx));
  return 0;
}

int replicate_mgr_rest_add(krel_http_rest_closure_t *restc, int, char **pats) {
  return collect_upload(restc, pats[0], add_topology);
}

int replicate_mgr_rest_update(krel_http_rest_closure_t *restc, int, char **) {
  return collect_upload(restc, "", update_topology);
}

void add_rule(const char *method, const char *base, const char *expression, krel_rest_handler_t handler) {
  krel_assert(krel_http_rest_register(method, base, expression, handler) == 0);
}

}  // namespace

void replicate_mgr_set_lag_source(std::function<replicate_mgr_lag_t()> source) {
  lag_source = std::move(source);
}

void replicate_mgr_set_rollups(std::vector<int> periods) {
  if (periods.empty()) return;
  rollups_text = fmt::format("\"base_rollup\":{},\"rollups\":[{}],", periods.front(), fmt::join(periods, ","));
}

void replicate_mgr_rest_init(bool, const char *version) {
  version_text = version;
  krelev_name_callback("replicate_mgr::upload_job", upload_job);
  add_rule("GET", "/", "^state$", replicate_mgr_rest_state);
  add_rule("GET", "/locate/", "^(json|xml)/([0-9a-fA-F]{4}(?:[0-9a-fA-F]{4}-){4}[0-9a-fA-F]{12})/(.+)$",
           replicate_mgr_rest_locate);
  add_rule("GET", "/topology/", "^(json|xml)/([a-f0-9]{64})$", replicate_mgr_rest_config);
  add_rule("GET", "/toporing/", "^(json|xml)/([a-f0-9]{64})$", replicate_mgr_rest_ring_config);
  add_rule("POST", "/topology/", "^([a-f0-9]{64})$", replicate_mgr_rest_add);
  add_rule("POST", "/topology/", "^update$", replicate_mgr_rest_update);
}

void replicate_mgr_register_web_ui() {
  krel_rest_mountpoint_t *rule = krel_http_rest_new_rule("GET", "/", "^(.*)$", krel_rest_simple_file_handler);
  krel_assert(rule);
  krel_rest_mountpoint_set_catch_all(rule, true);
}
