#include "be/common/proxied_read.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include "platform/krel/base/krel_util.h"

namespace velmar_be_common {

namespace {

// The first owner that is this node, or is not; else the primary.
const host_config *pick(const velmar_metric_locator_t *locator, bool local) {
  const topo_config *topology = topo_target();
  if (!topology) return nullptr;
  host_config *owners[TOPO_MAX_WRITE_COPIES];
  const int count = topo_find_insertion_point_config_locator(topology, locator, owners, 0);
  const topo_uuid_t me = topo_me();
  for (int i = 0; i < count; i++)
    if ((owners[i]->id == me) == local) return owners[i];
  return count ? owners[0] : nullptr;
}

}  // namespace

const host_config *pick_best_system(const velmar_metric_locator_t *locator) {
  return pick(locator, true);
}
const host_config *pick_best_system_prefer_remote(const velmar_metric_locator_t *locator) {
  return pick(locator, false);
}

std::string escape_url(std::string_view text) {
  char *escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
  std::string result = escaped ? escaped : "";
  curl_free(escaped);
  return result;
}

peer_request_t make_read(const host_config *host, std::string_view route,
                         const velmar_metric_locator_t *locator, std::string_view query) {
  char uuid[KREL_UUID_STR_LEN + 1];
  krel_uuid_unparse_lower(velmar_metric_locator_get_check_uuid(locator), uuid);
  const std::string_view name(velmar_metric_locator_get_name_with_tags(locator),
                              velmar_metric_locator_get_name_len_with_tags(locator));
  peer_request_t request;
  topo_curl_setup(&request, topo_target());
  request.url = fmt::format("{}/{}/{}/{}{}{}", topo_host_config_url_prefix(host), route, uuid, escape_url(name),
                            query.empty() ? "" : "?", query);
  return request;
}

peer_request_t make_proxied_read(const host_config *host, std::string_view route,
                                 const velmar_metric_locator_t *locator, std::string_view query) {
  char me[KREL_UUID_STR_LEN + 1];
  krel_uuid_unparse_lower(topo_me().data(), me);
  peer_request_t request = make_read(host, route, locator, query);
  request.headers.push_back(fmt::format("X-Velmar-Proxied: {}", me));
  return request;
}

}  // namespace velmar_be_common
