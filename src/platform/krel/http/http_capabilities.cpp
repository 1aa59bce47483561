// GET /capa: what this node can do and how its queues and loops fare.

#include <map>
#include <string>

#include "platform/krel/base/krel_json.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/http/krel_http.h"

namespace {

struct capabilities_t {
  krel_mutex_c lock;
  std::map<std::string, std::string> features GUARDED_BY(lock);
  std::string version GUARDED_BY(lock);
};

capabilities_t &capabilities() {
  static capabilities_t *all = new capabilities_t;
  return *all;
}

krel_json_object *features_json() {
  krel_json_object *out = krel_json_object_new_object();
  krel_lock_c lock(capabilities().lock);
  for (const auto &[name, value] : capabilities().features)
    krel_json_object_object_add(out, name.c_str(), krel_json_object_new_string(value.c_str()));
  return out;
}

krel_json_object *jobqs_json() {
  krel_json_object *out = krel_json_object_new_object();
  krelev_jobq_for_each([out](const krelev_jobq_figures_t &figures) {
    krel_json_object *q = krel_json_object_new_object();
    const auto count = [q](const char *key, uint64_t value) {
      krel_json_object_object_add(q, key, krel_json_object_new_uint64(value));
    };
    const auto time = [q](const char *key, double value) {
      krel_json_object_object_add(q, key, krel_json_object_new_double(value));
    };
    count("concurrency", figures.concurrency);
    count("min", figures.min);
    count("max", figures.max);
    count("max_backlog", figures.max_backlog);
    count("threads", figures.threads);
    count("backlog", figures.backlog);
    count("in_flight", figures.in_flight);
    count("total", figures.total);
    time("wait_mean_us", figures.wait_mean_us);
    time("wait_p99_us", figures.wait_p99_us);
    time("run_mean_us", figures.run_mean_us);
    time("run_p99_us", figures.run_p99_us);
    krel_json_object_object_add(out, figures.name.c_str(), q);
  });
  return out;
}

krel_json_object *pools_json() {
  krel_json_object *out = krel_json_object_new_object();
  krelev_pool_for_each([out](const krelev_pool_figures_t &figures) {
    krel_json_object *pool = krel_json_object_new_object();
    krel_json_object_object_add(pool, "concurrency", krel_json_object_new_uint64(figures.threads));
    krel_json_object_object_add(pool, "events", krel_json_object_new_uint64(figures.events));
    krel_json_object_object_add(pool, "turns", krel_json_object_new_uint64(figures.turns));
    krel_json_object_object_add(out, figures.name.c_str(), pool);
  });
  return out;
}

int capa_handler(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  const krel_json_ptr out(krel_json_object_new_object());
  {
    krel_lock_c lock(capabilities().lock);
    krel_json_object_object_add(out.get(), "version",
                                krel_json_object_new_string(capabilities().version.c_str()));
  }
  krel_json_object_object_add(out.get(), "features", features_json());
  krel_json_object_object_add(out.get(), "requests_in_flight",
                              krel_json_object_new_uint64(krel_http_requests_in_flight()));
  krel_json_object_object_add(out.get(), "jobqs", jobqs_json());
  krel_json_object_object_add(out.get(), "loops", pools_json());
  krel_http_response_status_set(session, 200, "OK");
  krel_http_response_header_set(session, "Content-Type", "application/json");
  krel_http_response_option_set(session, KREL_HTTP_COMPRESS);
  krel_http_response_append_str(session, krel_json_object_to_json_string(out.get()));
  krel_http_response_append_str(session, "\n");
  krel_http_response_end(session);
  return 0;
}

}  // namespace

void krel_capabilities_listener_init() {
  krel_assert(krel_http_rest_register("GET", "/", "^capa(?:\\.json)?$", capa_handler) == 0);
}

void krel_capabilities_add_feature(const char *name, const char *value) {
  krel_lock_c lock(capabilities().lock);
  capabilities().features[name] = value ? value : "";
}

std::string krel_capabilities_get_features() {
  const krel_json_ptr all(features_json());
  return krel_json_object_to_json_string(all.get());
}

void krel_http_set_version(const char *version) {
  krel_lock_c lock(capabilities().lock);
  capabilities().version = version;
}
