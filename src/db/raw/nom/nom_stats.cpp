#include "db/raw/nom/nom_stats.h"

#include <string>

#include "util/velmar_stats.h"

namespace velmar_db_raw_nom {
namespace {

stats_handle_t *handle(stats_ns_t *ns, const char *operation, const char *what, int kind, const char *units) {
  stats_handle_t *const h = stats_register(ns, (std::string(operation) + "`" + what).c_str(), kind);
  if (h == nullptr) return nullptr;
  stats_handle_tagged_name(h, what);
  stats_handle_add_tag(h, "operation", operation);
  stats_handle_add_tag(h, "units", units);
  return h;
}

nom_stats_t make(const char *path, const char *db_type) {
  stats_ns_t *const ns = velmar_stats_get_ns(path);
  stats_ns_add_tag(ns, "db-type", db_type);
  stats_ns_add_tag(ns, "db-impl", "nom");
  nom_stats_t s;
  s.put_tuples = handle(ns, "put", "tuples", STATS_TYPE_COUNTER, "tuples");
  s.put_latency = handle(ns, "put", "latency", STATS_TYPE_HISTOGRAM, "seconds");
  s.put_batchsize = handle(ns, "put", "batchsize", STATS_TYPE_HISTOGRAM, "tuples");
  s.get_tuples = handle(ns, "get", "tuples", STATS_TYPE_COUNTER, "tuples");
  s.get_latency = handle(ns, "get", "latency", STATS_TYPE_HISTOGRAM, "seconds");
  s.full_merges = handle(ns, "merge", "full", STATS_TYPE_COUNTER, "merges");
  s.partial_merges = handle(ns, "merge", "partial", STATS_TYPE_COUNTER, "merges");
  return s;
}

}  // namespace

const nom_stats_t &nom_stats(nom_merge_type_e datatype) {
  if (datatype == numeric) {
    static const nom_stats_t raw = make("db.raw.nom", "raw");
    return raw;
  }
  static const nom_stats_t hist = make("db.hist_shard.nom", "hist_shard");
  return hist;
}

}  // namespace velmar_db_raw_nom
