#include "node/config_keys.h"

#include <string>

namespace {

using enum config_kind_e;

#define BOTH "raw_database|histogram_ingest"

constexpr config_key_t KEYS[] = {
    {"@pidfile", file, "<localstate>/velmar.pid", "the lock of the running instance"},
    {"@krelev_rw_advisory_limit", integer, "2097152",
     "bytes of a body that are read before other connections have their turn; 0: no limit"},
    {"@big_sendbuf_size", integer, "1048576", "send buffer of sockets that carry large answers, in bytes"},

    {"localstate/@directory", directory, "/velmar/localstate",
     "small files of the node, temporary answers of peers"},

    {"listeners/listener", repeated, "", "a door of the node"},
    {"listeners/listener/@type", choice, "-", "the protocol spoken there",
     "http_rest_api graphite graphite_pickle"},
    {"listeners/listener/@address", text, "*", "address to listen on; * is every one"},
    {"listeners/listener/@port", port, "-", "0 takes a free port, which the log names"},
    {"listeners/listener/@ssl", boolean, "off", "TLS; needs sslconfig"},
    {"listeners/listener/sslconfig/certificate_file", file, "", "PEM"},
    {"listeners/listener/sslconfig/key_file", file, "", "PEM"},
    {"listeners/listener/sslconfig/ca_chain", file, "", "PEM; with it clients must show a certificate"},
    {"listeners/listener/config/check_uuid", uuid, "", "graphite: the check that lines belong to"},
    {"listeners/listener/config/account_id", integer, "0", "graphite: the account that lines belong to"},
    {"listeners/listener/config/buffer_size", integer, "512000",
     "graphite: bytes that a connection reads at once; 512000 to 64 MiB"},

    {"topology/@path", directory, "-", "topology files, each named by its signature"},
    {"topology/@active", text, "-", "signature of the topology in force; - is none"},
    {"topology/@next", text, "-", "signature of the topology that a rebalance goes to; - is none"},

    {"surrogate_database/@location", directory, "-", "names and ids of metrics"},
    {"surrogate_database/@db_type", choice, "-", "form of that database", "surrogate3"},
    {"surrogate_database/@implicit_latest", boolean, "false",
     "keep the latest samples of every metric at hand"},
    {"surrogate_database/@latest_future_bound", duration, "4h", "samples further ahead are not the latest"},
    {"surrogate_database/@runtime_concurrency", integer, "cores", "readers; raised to a power of two"},
    {"surrogate_database/@capacity_per_reader_shard", integer, "96000000 over the readers",
     "ceiling of pre-sizing, in metrics"},
    {"surrogate_database/@max_page_size", integer, "50000", "metrics in a page of a batch lookup"},
    {"metric_name_database/@location", directory, "-", "reserved for names of metrics"},

    {"raw_database/@location", directory, "-", "raw numeric samples"},
    {"raw_database/@suppress_rollup_filter", search, "", "metrics whose tags match are not rolled up"},
    {"raw_database/@max_db_write_buffer_size", size, "16M",
     "memory of a shard's samples before they go to table files"},
    {"histogram_ingest/@location", directory, "", "raw histogram samples; without it they are refused"},
    {"histogram_ingest/@max_cumul_arrival_dist", integer, "600",
     "seconds over which cumulative histograms are differenced"},
    {BOTH "/@granularity", duration, "7d", "time that a shard covers; whole hours"},
    {BOTH "/@min_delete_age", duration, "4w", "a shard is not deleted before its end is that old"},
    {BOTH "/@rollup_after_quiescent_age", duration, "8hr",
     "how long a shard is not written before it is rolled up"},
    {BOTH "/@delete_after_quiescent_age", duration, "1d",
     "on top of the former: age at which metrics whose rollup is suppressed are cleaned up"},
    {BOTH "/@max_clock_skew", duration, "1w", "how far in the future a shard may begin"},
    {BOTH "/@startup_rollup_delay", duration, "30m", "earliest time after a start for a rollup that is due"},
    {BOTH "/@streaming_limit", integer, "10000", "samples of an answer between two flushes"},
    {BOTH "/@conflict_resolver", choice, "last_abs_biggest",
     "which of two samples of one metric and time is kept",
     "abs_biggest biggest abs_smallest smallest last_abs_biggest last_biggest last_abs_smallest last_smallest"},
    {BOTH "/@recordsize", choice, "1h", "time that a stored record covers", "1h"},
    {BOTH "/@stepsize", choice, "1", "resolution of time in milliseconds", "1"},
    {BOTH "/@rollup_strategy", choice, "raw_iterator", "how rollups are made", "raw_iterator"},
    {BOTH "/@data_db", choice, "nomdb", "form of the databases", "nomdb"},
    {"raw/@timeout_in_seconds", integer, "10", "a put older than that is given up"},

    {"nntbs/@path", directory, "-", "numeric rollups"},
    {"nntbs/@shard_storage_type", choice, "LMDB", "engine of new shards", "LMDB mdbx"},
    {"nntbs/@lmdb_flags", text, "MDB_NOSYNC|MDB_NOTLS|MDB_NORDAHEAD|MDB_NOMEMINIT",
     "flags of LMDB environments"},
    {"nntbs/@shard_report_period_sec", integer, "15", "how often shards are counted for the statistics"},
    {"nntbs/@minimum_shard_floor", integer, "0", "no shard is made below this time, in seconds"},
    {"nntbs/shard", repeated, "-", "a rollup period"},
    {"nntbs/shard/@period", integer, "-",
     "seconds; divides the raw granularity, and a smaller period divides it"},
    {"nntbs/shard/@size", duration, "-", "time that a shard covers; raised to a multiple of 127 periods"},
    {"nntbs/shard/@retention", duration, "for ever", "cells older than that go"},
    {"nntbs/shard/@since", integer, "0", "the period has data only from this time on, in seconds"},
    {"nntbs/shard/@initial_map_size", size, "8G", "map of a new LMDB shard; it grows eightfold when full"},
    {"rollups/rollup/@period", integer, "", "deprecated: the periods stand in nntbs/shard"},

    {"histogram/@location", directory, "", "histogram rollups"},
    {"histogram/rollup", repeated, "-", "a period of histogram rollups"},
    {"histogram/rollup/@period", integer, "-", "seconds"},
    {"histogram/rollup/@granularity", duration, "-", "time that a shard covers"},
    {"histogram/rollup/@retention", duration, "for ever", "histograms older than that go"},

    {"graphite/whisper", repeated, "", "a directory of Whisper files that reads look into"},
    {"graphite/whisper/@directory", directory, "-", "its place"},
    {"graphite/whisper/@check_uuid", uuid, "-", "the check that its metrics belong to"},
    {"graphite/whisper/@account_id", integer, "-", "the account that they belong to"},

    {"retention/nntbs/tag", repeated, "", "cells of metrics by their tags; read, and not yet acted upon"},
    {"retention/nntbs/tag/@account_id", integer, "", "of that account"},
    {"retention/nntbs/tag/@query", search, "-", "whose tags match"},
    {"retention/nntbs/tag/@retention", duration, "-", "are kept that long"},

    {"validation/@metric_age_threshold", duration, "3650d", "older samples are refused"},
    {"validation/@metric_log_age_threshold", duration, "never", "older samples are logged on debug/old_data"},
    {"validation/@metric_age_threshold_in_ms", duration, "", "deprecated: metric_age_threshold"},
    {"old_data_logging/@metric_age_threshold", duration, "",
     "deprecated: validation/@metric_log_age_threshold"},

    {"deferred_processing/@start_ts", integer, "0", "from this time on (seconds) data is put off; 0: never"},
    {"deferred_processing/@continue_ts", integer, "0", "from this time on it is processed again"},
    {"deferred_processing/@defer_nnt", integer, "1", "1: rollups are put off, too"},
    {"deferred_processing/@defer_text", integer, "1", "1: texts are put off, too"},
    {"deferred_processing/@defer_hist", integer, "1", "1: histograms are put off, too"},
    {"deferred_processing/@defer_raw", integer, "1", "1: raw samples are put off, too"},

    {"cache/@rocksdb_block_cache_size", size, "256M", "the read cache of all databases"},

    {"rest/@document_root", directory, "", "files of the console"},
    {"rest/@header_timeout", duration, "30s", "a request whose header is not complete by then is answered 408"},
    {"rest/@body_timeout", duration, "30s", "a body that does not go on for that long ends its connection"},
    {"rest/@idle_timeout", duration, "75s", "of a connection between requests"},
    {"rest/@write_timeout", duration, "60s", "a client that takes nothing for that long is left"},
    {"rest/rollup/@max_cells", integer, "1000000", "cells of an answer of /rollup"},
    {"proxy/rest_get/@timeout_ms", integer, "", "bound of a read that is forwarded"},

    {"request_logger/@directory", directory, "", "requests are kept there, for debugging"},
    {"request_logger/@save_post_bodies", boolean, "false", "with their bodies"},
    {"request_logger/@remove_after_finish", boolean, "false", "until they end"},

    {"krelev/config/concurrency", integer, "cores, at least 2", "loop threads"},
    {"krelev/config/default_ca_chain", file, "", "certificates that peers are checked by"},
    {"krelev/config/loop_*", integer, "", "threads of a further loop pool"},
    {"krelev/config/jobq_*", text, "see GET /capa",
     "concurrency,minimum,maximum[,gc|none][,backlog][,lifo|fifo] of a job queue"},
    {"watchdog/@timeout", duration, "30s", "a node whose loops stand still for that long is started again"},

    {"logs/log", repeated, "", "a log stream"},
    {"logs/log/@name", text, "-", "error, notice, debug or a stream below one of them, as debug/raw"},
    {"logs/log/@enabled", boolean, "on; debug off", ""},
    {"logs/log/@path", file, "the parent's", "- is standard error; files are opened again on SIGHUP"},
    {"logs/log/@rotate_seconds", integer, "0", "a new file that often; 0: never"},
    {"logs/log/@retain_seconds", integer, "0", "files older than that go; 0: none"},
};

const char *kind_name(config_kind_e kind) {
  switch (kind) {
    case integer:
      return "integer";
    case decimal:
      return "number";
    case boolean:
      return "on or off";
    case duration:
      return "duration";
    case size:
      return "bytes";
    case uuid:
      return "UUID";
    case directory:
      return "directory";
    case file:
      return "file";
    case port:
      return "port";
    case time:
      return "time";
    case search:
      return "tag search";
    default:
      return "text";
  }
}

std::string joined(std::string_view choices) {
  std::string result;
  for (const char c : choices) result += c == ' ' ? std::string("`, `") : std::string(1, c);
  return '`' + result + '`';
}

const char *const HEAD =
    "# Configuration\n\n"
    "One XML document with the root `velmar`. `${NAME}` and `${NAME:-default}` in a value are taken from the\n"
    "environment, unless `env=\"off\"` stands on the element or above it. `<include file=\"x.conf\"/>` takes "
    "the children\n"
    "of that file's root in. Durations are numbers with units (`1d12h`; ns us ms s m h d w y), sizes may end "
    "in\n"
    "K, M, G or T. `velmard --check -c FILE` says what is wrong with a file, all of it at once, and starts "
    "nothing.\n\n"
    "This page is written by `velmard --keys`.\n";

}  // namespace

std::span<const config_key_t> config_keys() {
  return KEYS;
}

void config_keys_write_markdown(FILE *out) {
  fputs(HEAD, out);
  std::string_view section = "-";
  for (const config_key_t &key : KEYS) {
    if (key.kind == repeated) continue;
    const size_t slash = key.place.find_first_of("/@");
    const std::string_view top = key.place[0] == '@' ? "" : key.place.substr(0, slash);
    if (top != section) {
      section = top;
      fprintf(out, "\n## %s\n\n| Key | Takes | Default | Effect |\n|---|---|---|---|\n",
              section.empty() ? "velmar" : std::string(section).c_str());
    }
    const std::string takes = key.kind == choice ? joined(key.choices) : kind_name(key.kind);
    const std::string fallback = key.fallback == "-" ? "required" : std::string(key.fallback);
    fprintf(out, "| `%s` | %s | %s | %s |\n", std::string(key.place).c_str(), takes.c_str(), fallback.c_str(),
            std::string(key.meaning).c_str());
  }
}
