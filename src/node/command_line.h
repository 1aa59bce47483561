#pragma once
// The command line of velmard: what the flags set, and every refusal of a bad combination.

#include <cstdint>
#include <cstdio>
#include <optional>
#include <set>
#include <string>

enum maintenance_shard_type_e {
  MAINTENANCE_SHARD_UNKNOWN = 0,
  MAINTENANCE_SHARD_NNTBS = 1,
  MAINTENANCE_SHARD_RAW_NUMERIC = 2,
  MAINTENANCE_SHARD_RAW_HISTOGRAM = 3,
  MAINTENANCE_SHARD_ROLLUP_HISTOGRAM = 4,
};

// One shard for an offline rebuild; all times in seconds. floor 0: none was given.
struct reconstitute_shard_t {
  maintenance_shard_type_e type = MAINTENANCE_SHARD_UNKNOWN;
  int period = 0;
  uint64_t floor = 0;
  uint64_t ceiling = 0;
};

enum proc_op_e { PROC_START = 0, PROC_STOP = 1, PROC_STATUS = 2, PROC_INVALID = 3 };

struct command_line_t {
  std::string config_file = "/opt/tolvanus/etc/velmar.conf";
  std::string node_id;  // lower case; empty: none
  bool ephemeral = false;
  int proc_op = PROC_START;
  int debug = 0;
  int foreground = 0;
  bool require_foreground = false;
  int lock_op = 0;  // 1: wait for the instance lock
  std::string glider;
  std::string droptouser, droptogroup, chrootpath;
  std::string xpath;
  bool check_config = false, print_keys = false;
  std::string repair_tgt;
  std::set<std::string> merge_text, merge_hist;  // at most 1024 files each
  uint64_t import_time_limit = 0;                // microseconds
  int rebuild_rollup = 0;                        // period in seconds; 0: none
  bool reconstitute_mode = false;
  std::string reconstitute_topo, reconstitute_remote_host;
  std::set<std::string> reconstitute_enabled_types, reconstitute_nodes_to_skip;
  reconstitute_shard_t offline_ssr_shard;
  bool drain_journal_mode = false;
  bool reject_nnt_puts = false;
  bool gossip_disabled = false;
};

// Parses argv into `line` and checks the combination. Words for the user go to `out` and `err`. A
// result is the exit status with which the process ends; none: go on. Not re-entrant (getopt).
std::optional<int> parse_clargs(int argc, char *const argv[], command_line_t *line, FILE *out, FILE *err);

void print_usage(const char *program, FILE *out, FILE *err);
