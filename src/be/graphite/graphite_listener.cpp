#include "be/graphite/graphite_listener.h"

#include <fmt/core.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>

#include "be/graphite/graphite_connection.h"
#include "be/graphite/graphite_log.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/http/krel_http.h"
#include "platform/tolvmetrics/stats.h"
#include "util/uuid_text.h"
#include "util/velmar_stats.h"

namespace be::graphite {

namespace {

std::string listener_name(const krel_conf_section_t &listener) {
  std::string address, port;
  krel_conf_get_string(listener, "@address", &address);
  krel_conf_get_string(listener, "@port", &port);
  return fmt::format("graphite listener {}:{}", address, port);
}

// None, with the reason, for a listener whose connections cannot be served. Other faults end the process.
std::optional<listener_config_t> read_config(const krel_conf_section_t &listener, std::string *reason) {
  listener_config_t config;
  std::string uuid;
  uint64_t buffer_size = config.buffer_size;
  krel_conf_get_int32(listener, "config/account_id", &config.source.account_id);
  krel_conf_get_uint64(listener, "config/buffer_size", &buffer_size);
  if (buffer_size < BUFFER_SIZE_MIN || buffer_size > BUFFER_SIZE_MAX)
    krel_fatal("%s: buffer_size must lie between %zu and %zu\n", listener_name(listener).c_str(),
               BUFFER_SIZE_MIN, BUFFER_SIZE_MAX);
  config.buffer_size = buffer_size;
  if (!krel_conf_get_string(listener, "config/check_uuid", &uuid)) {
    *reason = "its configuration has no check_uuid";
    return {};
  }
  if (uuid.size() == UUID_TEXT_SIZE && uuid_text_parse(uuid.data(), config.source.check_uuid.data()))
    return config;
  *reason = fmt::format("its check_uuid \"{}\" is none", uuid);
  return {};
}

// On the first loop's thread.
void accept_connection(int fd, const std::string &peer, void *closure) {
  static std::map<const void *, std::optional<listener_config_t>> configs;
  const auto &listener = *static_cast<const krel_conf_section_t *>(closure);
  std::string reason;
  auto known = configs.find(closure);
  if (known == configs.end()) known = configs.emplace(closure, read_config(listener, &reason)).first;
  const refusal_t *no = refusal();
  if (no || !known->second) {
    krel_log(log_error(), "%s: the connection of %s is closed: %s\n", listener_name(listener).c_str(),
             peer.c_str(), no ? no->body : "the listener's check_uuid is missing or wrong");
    ::close(fd);
    return;
  }
  krel_log(log_debug(), "%s: %s connects\n", listener_name(listener).c_str(), peer.c_str());
  connection_serve(fd, *known->second);
}

void check_listeners() {
  for (const auto &listener :
       krel_conf_get_sections_read(KREL_CONF_ROOT, "/velmar/listeners//listener[@type=\"graphite\"]")) {
    std::string reason, account;
    if (!read_config(listener, &reason))
      krel_log(log_error(), "%s: %s: every connection to it will be closed\n", listener_name(listener).c_str(),
               reason.c_str());
    else if (!krel_conf_get_string(listener, "config/account_id", &account))
      krel_log(log_error(), "%s: its configuration has no account_id: its metrics belong to account 0\n",
               listener_name(listener).c_str());
  }
}

}  // namespace

}  // namespace be::graphite

void graphite_listener_init(bool ephemeral) {
  using namespace be::graphite;
  krel_listener_register_type("graphite", ephemeral ? nullptr : accept_connection);
  krel_listener_register_type("graphite_pickle", nullptr);  // says which checks and accounts come that way
  if (ephemeral) return;
  connections_init();
  check_listeners();
  stats_invoke(velmar_stats_get_handle("be.graphite.connections", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(connections_open()); });
}

void graphite_listener_close() {
  be::graphite::connections_close();
}
