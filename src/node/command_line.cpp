#include "node/command_line.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "node/version.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/process/krel_main.h"

namespace {

constexpr size_t MAX_MERGE_FILES = 1024;
constexpr int EXIT_REFUSED = 255;  // -1 as the shell sees it
const char *const OPTIONS = "k:I:H:m:i:ejRhc:dDBT:A:S:O:u:g:t:l:L:G:wr:x:n:s:q";

const char *const USAGE =
    "\nProcess control flags:\n"
    "  -k start|stop|status   start the node (default), stop the running one, or tell whether one runs\n"
    "\nMutually exclusive flags:\n"
    "  -e                     ephemeral compute node: no local stores, no writes\n"
    "  -i <uuid>              the id of this node\n"
    "\nStandalone loader flags for use with -i\n"
    "  -m <file>              merge a text file (repeatable)\n"
    "  -H <file>              merge a histogram file (repeatable)\n"
    "\nStandalone maintenance flags for use with -i\n"
    "  -r text/metrics        repair the text metrics database\n"
    "  -r text/changelog      repair the text changelog\n"
    "  -r hist/metrics        repair the histogram metrics database\n"
    "  -r hist/<period>       repair the histograms of a period\n"
    "  -j                     drain the journals: send what is owed to peers, take no data\n"
    "\nOptional behavior flags:\n"
    "  -c <file>              configuration file (default: /opt/tolvanus/etc/velmar.conf)\n"
    "  -d                     debug\n"
    "  -D                     stay in the foreground; twice: without the monitor process, too\n"
    "  -u <user>              drop to this user\n"
    "  -g <group>             drop to this group\n"
    "  -t <path>              change root to this directory\n"
    "  -l <logname>           switch a log stream on\n"
    "  -L <logname>           switch a log stream off\n"
    "\nReconstitute parameters:\n"
    "  -B                     reconstitute this node from its peers\n"
    "  -T <topo_hash>         topology to reconstitute from\n"
    "  -O <ip>[:<port>]       host to fetch the topology from\n"
    "  -A <type>              reconstitute this type only (repeatable): nntbs, text, hist, hist_shard_raw,\n"
    "                         hist_shard_rollup, raw, surrogate; with none given, all types are enabled\n"
    "  -s [<period>,]<block_floor>,<block_ceiling>\n"
    "                         reconstitute one shard only\n"
    "  -S <node_uuid>         skip this node (repeatable)\n"
    "  -q                     do not start gossip\n"
    "\nHelp with the configuration:\n"
    "  --check                say everything that is wrong with the file of -c, and start nothing\n"
    "  --keys                 every key, what it takes and does, as Markdown\n"
    "\nThis usage message:\n"
    "  -h\n";

enum long_option_e { OPTION_CHECK = 256, OPTION_KEYS };
constexpr option LONG_OPTIONS[] = {{"check", no_argument, nullptr, OPTION_CHECK},
                                   {"keys", no_argument, nullptr, OPTION_KEYS},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};

class parser_c {
 public:
  parser_c(const char *program, command_line_t *line, FILE *out, FILE *err)
      : m_program(program), m_line(line), m_out(out), m_err(err) {}

  std::optional<int> option(int flag, const char *argument);
  std::optional<int> check_combination() const;

 private:
  std::optional<int> refuse(const char *text) const {
    fputs(text, m_err);
    return EXIT_REFUSED;
  }
  std::optional<int> usage(int status) const {
    print_usage(m_program, m_out, m_err);
    return status;
  }
  std::optional<int> process_option(int flag, const char *argument);
  std::optional<int> standalone_option(int flag, const char *argument);
  std::optional<int> reconstitute_option(int flag, const char *argument);
  std::optional<int> set_node_id(const char *text);
  std::optional<int> add_merge_file(std::set<std::string> *files, const std::set<std::string> &other,
                                    const char *file);
  std::optional<int> set_shard(const char *text);
  void need_foreground() {
    m_line->require_foreground = true;
    m_line->foreground = 1;
  }

  const char *m_program;
  command_line_t *m_line;
  FILE *m_out, *m_err;
};

std::optional<std::string> lower_case_uuid(const char *text) {
  krel_uuid_t uuid;
  char lower[37];
  if (krel_uuid_parse(text, uuid) != 0) return {};
  krel_uuid_unparse_lower(uuid, lower);
  return lower;
}

// A whole decimal number that fits; false otherwise.
template <typename T>
bool parse_decimal(const std::string &text, T *value) {
  char *end = nullptr;
  errno = 0;
  const long long parsed = strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || parsed < 0 || static_cast<long long>(static_cast<T>(parsed)) != parsed)
    return false;
  *value = static_cast<T>(parsed);
  return true;
}

std::optional<int> parser_c::set_node_id(const char *text) {
  if (m_line->ephemeral) return refuse("cannot be both ephemeral and have a node id.\n");
  const auto id = lower_case_uuid(text);
  if (!id) return refuse("invalid uuid passed to -i\n");
  m_line->node_id = *id;
  return {};
}

std::optional<int> parser_c::add_merge_file(std::set<std::string> *files, const std::set<std::string> &other,
                                            const char *file) {
  if (!other.empty()) return refuse("Cannot merge text and histograms at the same time.\n");
  if (files->size() >= MAX_MERGE_FILES) return refuse("Too many merge files\n");
  files->insert(file);
  need_foreground();
  return {};
}

std::optional<int> parser_c::set_shard(const char *text) {
  std::vector<std::string> parts(1);
  for (const char *p = text; *p; p++) {
    if (*p == ',')
      parts.emplace_back();
    else
      parts.back() += *p;
  }
  if (parts.size() != 2 && parts.size() != 3) return refuse("incorrect number of shard parameters to -s\n");
  reconstitute_shard_t shard;
  if ((parts.size() == 3 && !parse_decimal(parts.front(), &shard.period)) ||
      !parse_decimal(parts[parts.size() - 2], &shard.floor) || !parse_decimal(parts.back(), &shard.ceiling))
    return refuse("invalid shard parameters passed to -s\n");
  m_line->offline_ssr_shard = shard;
  return {};
}

std::optional<int> parser_c::process_option(int flag, const char *argument) {
  switch (flag) {
    case 'k':
      m_line->proc_op = strcmp(argument, "start") == 0    ? PROC_START
                        : strcmp(argument, "stop") == 0   ? PROC_STOP
                        : strcmp(argument, "status") == 0 ? PROC_STATUS
                                                          : PROC_INVALID;
      break;
    case 'e':
      if (!m_line->node_id.empty()) return refuse("cannot be both ephemeral and have a node id.\n");
      m_line->ephemeral = true;
      break;
    case 'i':
      return set_node_id(argument);
    case 'c':
      m_line->config_file = argument;
      break;
    case 'd':
      m_line->debug++;
      break;
    case 'D':
      m_line->foreground++;
      break;
    case 'u':
      m_line->droptouser = argument;
      break;
    case 'g':
      m_line->droptogroup = argument;
      break;
    case 't':
      m_line->chrootpath = argument;
      break;
    case 'l':
      krel_main_enable_log(argument);
      break;
    case 'L':
      krel_main_disable_log(argument);
      break;
    case 'G':
      m_line->glider = argument;
      break;
    case 'w':
      m_line->lock_op = 1;
      break;
    case 'R':
      m_line->reject_nnt_puts = true;
      break;
    case 'q':
      m_line->gossip_disabled = true;
      break;
    case 'h':
      return usage(1);
    default:
      break;  // an unknown character is passed over; getopt has named it
  }
  return {};
}

std::optional<int> parser_c::standalone_option(int flag, const char *argument) {
  switch (flag) {
    case 'x':
      m_line->xpath = argument;
      m_line->foreground++;
      krel_main_disable_log("notice");
      break;
    case 'm':
      return add_merge_file(&m_line->merge_text, m_line->merge_hist, argument);
    case 'H':
      return add_merge_file(&m_line->merge_hist, m_line->merge_text, argument);
    case 'I':
      m_line->import_time_limit = strtoull(argument, nullptr, 0) * 1000000;
      break;
    case 'r':
      m_line->repair_tgt = argument;
      need_foreground();
      break;
    case 'j':
      m_line->drain_journal_mode = true;
      need_foreground();
      break;
    case 'n':
      m_line->rebuild_rollup = atoi(argument);
      if (m_line->rebuild_rollup < 1) return refuse("rollup to rebuild must be > 0\n");
      need_foreground();
      break;
    default:
      break;
  }
  return {};
}

std::optional<int> parser_c::reconstitute_option(int flag, const char *argument) {
  switch (flag) {
    case 'B':
      m_line->reconstitute_mode = true;
      need_foreground();
      break;
    case 'T':
      m_line->reconstitute_topo = argument;
      break;
    case 'O':
      m_line->reconstitute_remote_host = argument;
      break;
    case 'A':
      if (!m_line->reconstitute_enabled_types.insert(argument).second) return usage(EXIT_REFUSED);
      break;
    case 'S': {
      const auto id = lower_case_uuid(argument);
      if (!id) return refuse("invalid uuid passed to -S\n");
      if (!m_line->reconstitute_nodes_to_skip.insert(*id).second) return usage(EXIT_REFUSED);
      break;
    }
    case 's':
      return set_shard(argument);
    default:
      break;
  }
  return {};
}

std::optional<int> parser_c::option(int flag, const char *argument) {
  if (flag == OPTION_CHECK || flag == OPTION_KEYS) {
    (flag == OPTION_CHECK ? m_line->check_config : m_line->print_keys) = true;
    krel_main_disable_log("notice");
    return {};
  }
  if (strchr("xmHIrjn", flag)) return standalone_option(flag, argument);
  if (strchr("BTOASs", flag)) return reconstitute_option(flag, argument);
  return process_option(flag, argument);
}

std::optional<int> parser_c::check_combination() const {
  const command_line_t &l = *m_line;
  if (l.proc_op == PROC_STOP || l.proc_op == PROC_STATUS || l.check_config || l.print_keys) return {};
  const bool with_source = !l.reconstitute_topo.empty() || !l.reconstitute_remote_host.empty() ||
                           !l.reconstitute_enabled_types.empty() || !l.reconstitute_nodes_to_skip.empty();
  const bool repairs = !l.repair_tgt.empty(), merges_text = !l.merge_text.empty(),
             merges_hist = !l.merge_hist.empty();
  const int modes = l.reconstitute_mode + merges_hist + merges_text + repairs + l.drain_journal_mode +
                    (l.rebuild_rollup != 0);
  if (!l.xpath.empty()) {
    if (!l.node_id.empty() || l.ephemeral || with_source || modes || l.debug) return usage(EXIT_REFUSED);
  } else if (l.node_id.empty() && !l.ephemeral) {
    return usage(EXIT_REFUSED);
  }
  if (l.ephemeral && (repairs || merges_text || merges_hist || l.reconstitute_mode)) return usage(EXIT_REFUSED);
  if (with_source && (!l.reconstitute_mode || l.node_id.empty())) return usage(EXIT_REFUSED);
  if (modes > 1) return usage(EXIT_REFUSED);
  if (l.require_foreground && l.foreground != 1) return usage(EXIT_REFUSED);
  return {};
}

}  // namespace

void print_usage(const char *program, FILE *out, FILE *err) {
  fprintf(err, "Velmar version %s\n", velmar_version());
  fflush(err);
  fprintf(out, "Usage for %s:\n%s", program, USAGE);
  fflush(out);
}

std::optional<int> parse_clargs(int argc, char *const argv[], command_line_t *line, FILE *out, FILE *err) {
  parser_c parser(argv[0], line, out, err);
  optind = 0;
  for (int flag; (flag = getopt_long(argc, argv, OPTIONS, LONG_OPTIONS, nullptr)) != -1;)
    if (const auto status = parser.option(flag, optarg)) return status;
  return parser.check_combination();
}
