#pragma once
// Reads of one metric that another node may have to answer.

#include <string>
#include <string_view>

#include "libvelmar/net/peer_http.h"
#include "libvelmar/topo/topo.h"
#include "util/velmar_metric_locator.h"

namespace velmar_be_common {

// The path's rest that names a metric: the check's uuid and the name.
constexpr const char *METRIC_PATH = "^([0-9a-fA-F]{4}(?:[0-9a-fA-F]{4}-){4}[0-9a-fA-F]{12})/(.+)$";

// Whom a read asks: this node when it owns the metric, else the primary owner. Null: nobody is known.
const host_config *pick_best_system(const velmar_metric_locator_t *locator);
// The same for a read that this node can serve only in part: the first other owner, if there is one.
const host_config *pick_best_system_prefer_remote(const velmar_metric_locator_t *locator);
// A GET of "<host>/<route>/<uuid>/<name>[?<query>]"; `query` is encoded.
peer_request_t make_read(const host_config *host, std::string_view route,
                         const velmar_metric_locator_t *locator, std::string_view query);
// The same for a client's request: the peer answers it from its own data.
peer_request_t make_proxied_read(const host_config *host, std::string_view route,
                                 const velmar_metric_locator_t *locator, std::string_view query);
std::string escape_url(std::string_view text);

}  // namespace velmar_be_common
