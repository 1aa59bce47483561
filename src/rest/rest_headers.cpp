// Headers that nodes send each other.

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "rest/rest_helpers.h"

namespace {

constexpr size_t MAX_DOWN_NODES = 128;

const char *header(krel_http_session_t *session, const char *name) {
  return krel_http_request_header(krel_http_session_request(session), name);
}

}  // namespace

bool rest_x_velmar_proxied_on(krel_http_session_t *session) {
  const char *value = header(session, "x-velmar-proxied");
  return value && *value && std::string_view(value) != "0" && strcasecmp(value, "off") != 0;
}

std::optional<int64_t> rest_x_velmar_timeout(krel_http_session_t *session) {
  const char *value = header(session, "x-velmar-timeout");
  if (!value) return {};
  char *end = nullptr;
  errno = 0;
  const long ms = strtol(value, &end, 10);
  if (end == value || errno || ms < 0 || (*end && std::string_view(end) != "ms")) {
    krel_log(krel_error,
             "warning: invalid string passed as x-velmar-timeout header (%s), setting no timeout...\n", value);
    return {};
  }
  return ms;
}

std::optional<struct timeval> rest_x_velmar_deadline(krel_http_session_t *session) {
  const char *value = header(session, "x-velmar-deadline");
  unsigned long long seconds = 0;
  unsigned microseconds = 0;
  if (!value || sscanf(value, "%llu.%06u", &seconds, &microseconds) != 2) return {};
  return timeval{static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
}

int rest_helper_adopt_taskid(krel_http_rest_closure_t *restc) {
  const char *value = header(restc->http_ctx, "x-velmar-taskid");
  krel_task_set_current_task(value ? strtoull(value, nullptr, 10) : 0);
  return 0;
}

std::vector<rest_uuid_t> rest_get_down_nodes(krel_http_session_t *session) {
  std::vector<rest_uuid_t> nodes;
  const char *list = header(session, "x-nodes-down"), *count = header(session, "x-nodes-down-count");
  const size_t expected = count ? strtoul(count, nullptr, 10) : MAX_DOWN_NODES;
  std::string_view rest = list ? list : "";
  while (!rest.empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string text(rest.substr(0, comma));
    rest.remove_prefix(std::min(comma + 1, rest.size()));
    rest_uuid_t node;
    if (krel_uuid_parse(text.c_str(), node.data()) != 0) {
      krel_log(krel_error, "ERROR (rest_get_down_nodes): Couldn't parse UUID string %s\n", text.c_str());
      continue;
    }
    if (nodes.size() >= std::min(expected, MAX_DOWN_NODES)) {
      krel_log(krel_error, "ERROR (rest_get_down_nodes): Found more nodes than expected\n");
      break;
    }
    nodes.push_back(node);
  }
  return nodes;
}

bool rest_is_node_down(const rest_uuid_t &node, const std::vector<rest_uuid_t> &down) {
  return std::find(down.begin(), down.end(), node) != down.end();
}

bool timed_out(const struct timeval &now, const struct timeval &start, int64_t limit_ms) {
  if (limit_ms == 0) return false;
  return (now.tv_sec - start.tv_sec) * 1000 + (now.tv_usec - start.tv_usec) / 1000 >= limit_ms;
}

bool http_validate_target_topo(krel_http_session_t *session) {
  const char *named = header(session, "x-target-topology");
  for (const topo_config *in_force : {topo_active(), topo_next_active()})
    if (named && in_force && strcasecmp(named, topo_signature(in_force)) == 0) return true;
  return false;
}
