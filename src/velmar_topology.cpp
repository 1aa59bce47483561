// velmar-topology: compiles a topology file, prints its signature, explains what is wrong with it, and
// installs it under its name.

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_util.h"
#include "util/io/files.h"

namespace {

constexpr int EXIT_BAD_TOPOLOGY = 1, EXIT_USAGE = 2;

const char *const USAGE =
    "Usage: velmar-topology COMMAND ...\n"
    "  check FILE               compile it; print its signature, its nodes and their share of the keys\n"
    "  signature FILE           print the signature only\n"
    "  install FILE DIRECTORY   compile it and put it into the topology directory under its signature\n"
    "  owners FILE UUID NAME    print the nodes that own a metric, the primary first\n"
    "FILE may be - for standard input. The document:\n"
    "  <nodes write_copies=\"2\">\n"
    "    <node id=\"<uuid, lower case>\" address=\"10.0.0.1\" port=\"8112\" apiport=\"8112\" weight=\"170\"/>\n"
    "    ...                    optional in each node: side=\"a\" or side=\"b\"; optional in nodes: "
    "use_tls=\"true\"\n"
    "  </nodes>\n"
    "Exit status: 0 done, 1 the topology is bad (the reason is on standard error), 2 usage or file error.\n";

bool read_document(const char *path, std::string *text) {
  std::stringstream buffer;
  if (strcmp(path, "-") == 0) {
    char piece[65536];
    for (size_t n; (n = fread(piece, 1, sizeof(piece), stdin)) > 0;)
      buffer.write(piece, static_cast<std::streamsize>(n));
  } else {
    std::ifstream file(path, std::ios::binary);
    struct stat st;
    if (!file || stat(path, &st) != 0 || S_ISDIR(st.st_mode)) {
      fprintf(stderr, "velmar-topology: cannot read %s: %s\n", path, strerror(errno ? errno : EISDIR));
      return false;
    }
    buffer << file.rdbuf();
  }
  *text = buffer.str();
  return true;
}

// What the compiler's words mean for whoever wrote the file.
const char *remedy(const std::string &err) {
  static const std::pair<const char *, const char *> REMEDIES[] = {
      {"XML parse error",
       "the document must be well-formed XML with the root <nodes> and 1 to 128 <node> elements"},
      {"bad id", "give every node a UUID in lower-case letters, e.g. from: uuidgen | tr A-F a-f"},
      {"write_copies < # sides", "a sided topology keeps a copy on each side: write_copies must be at least 2"},
      {"mixed sided", "give every node side=\"a\" or side=\"b\", or none of them"},
      {"|side| <", "each side needs at least half of write_copies nodes, rounded up"},
      {"node count", "add nodes or lower write_copies: each copy lives on another node"},
      {"exceeds the max", "write_copies is 10 at most"},
      {"Same uuid", "two nodes have one id: every node needs its own"},
      {"interpret address", "use a dotted IPv4 address or a name that resolves to one"},
  };
  for (const auto &[text, help] : REMEDIES)
    if (err.find(text) != std::string::npos) return help;
  return nullptr;
}

std::unique_ptr<topo_config> compile(const std::string &document, const char *path) {
  std::string err;
  auto tc = topo_compile_text(document, nullptr, &err);
  if (!tc) {
    while (!err.empty() && err.back() == '\n') err.pop_back();
    fprintf(stderr, "velmar-topology: %s: %s\n", path, err.c_str());
    if (const char *help = remedy(err)) fprintf(stderr, "  %s\n", help);
  }
  return tc;
}

int check(const topo_config *tc) {
  std::map<std::string, double> share;
  struct walk_t {
    std::map<std::string, double> *share;
    double last = 0;
    std::string first;
  } walk{&share, 0, ""};
  ring_apply(tc, &walk,
             [](const topo_config *, const host_config *host, int, const topo_location_t &, double position,
                void *thunk) {
               auto *w = static_cast<walk_t *>(thunk);
               if (w->first.empty()) w->first = host->id_str;
               (*w->share)[host->id_str] += position - w->last;
               w->last = position;
               return 0;
             });
  share[walk.first] += 100 - walk.last;
  printf("signature    %s\nwrite copies %d\nnodes        %d%s%s\nring points  %zu\n", tc->hex_signature,
         tc->w_count, tc->host_count, tc->use_side ? ", sided" : "", tc->use_tls ? ", TLS" : "",
         tc->ring.size());
  for (int i = 0; i < tc->host_count; i++) {
    const host_config &h = tc->hosts[i];
    printf("  %s %s port %d apiport %d weight %d side %s, %.1f %% of the primary keys\n", h.id_str,
           h.hostname.c_str(), ntohs(h.net_port), ntohs(h.net_apiport), h.weight,
           topo_host_ringside_str(h.ringside), share[h.id_str]);
  }
  return 0;
}

int install(const topo_config *tc, const std::string &document, const std::string &directory) {
  const std::string path = directory + "/" + tc->hex_signature;
  if (const auto code = util::io::atomic_replace(path, document)) {
    fprintf(stderr, "velmar-topology: cannot write %s: %s\n", path.c_str(), code.message().c_str());
    return EXIT_USAGE;
  }
  printf("%s\n", tc->hex_signature);
  return 0;
}

int owners(const topo_config *tc, const char *uuid, const char *name) {
  topo_uuid_t id;
  if (krel_uuid_parse(uuid, id.data()) != 0) {
    fprintf(stderr, "velmar-topology: %s is no UUID\n", uuid);
    return EXIT_USAGE;
  }
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name, strlen(name));
  velmar_metric_locator_t *locator = velmar_metric_locator_create(id.data(), &reader, METRIC_TYPE_ANY);
  if (!locator) {
    fprintf(stderr, "velmar-topology: %s is no metric name\n", name);
    return EXIT_USAGE;
  }
  host_config *loc[TOPO_MAX_WRITE_COPIES];
  const int count = topo_find_insertion_point_config_locator(tc, locator, loc, 0);
  for (int i = 0; i < count; i++) printf("%s %s\n", loc[i]->id_str, loc[i]->hostname.c_str());
  velmar_metric_locator_deref(locator);
  return 0;
}

}  // namespace

int main(int argc, char *argv[]) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "-h" || command == "--help") {
    fputs(USAGE, stdout);
    return 0;
  }
  const int wanted = command == "check" || command == "signature" ? 3
                     : command == "install"                       ? 4
                     : command == "owners"                        ? 5
                                                                  : 0;
  if (argc != wanted) {
    fputs(USAGE, stderr);
    return EXIT_USAGE;
  }
  std::string document;
  if (!read_document(argv[2], &document)) return EXIT_USAGE;
  const auto tc = compile(document, argv[2]);
  if (!tc) return EXIT_BAD_TOPOLOGY;
  if (command == "check") return check(tc.get());
  if (command == "install") return install(tc.get(), document, argv[3]);
  if (command == "owners") return owners(tc.get(), argv[3], argv[4]);
  printf("%s\n", tc->hex_signature);
  return 0;
}
