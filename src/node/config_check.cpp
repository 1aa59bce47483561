#include "node/config_check.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <libxml/tree.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <vector>

#include "node/config_keys.h"
#include "platform/dorn/dorn_search.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

using enum config_kind_e;

std::vector<std::string_view> split(std::string_view text, char at) {
  std::vector<std::string_view> parts;
  for (size_t end; (end = text.find(at)) != std::string_view::npos; text.remove_prefix(end + 1))
    parts.push_back(text.substr(0, end));
  parts.push_back(text);
  return parts;
}

bool name_matches(std::string_view pattern, std::string_view name) {
  if (pattern.ends_with('*')) return name.starts_with(pattern.substr(0, pattern.size() - 1));
  return pattern == name;
}

// The places that a key of the table stands for.
std::vector<std::string> places_of(const config_key_t &key) {
  const size_t slash = key.place.find('/');
  if (slash == std::string_view::npos) return {std::string(key.place)};
  std::vector<std::string> places;
  for (const std::string_view top : split(key.place.substr(0, slash), '|'))
    places.push_back(fmt::format("{}{}", top, key.place.substr(slash)));
  return places;
}

struct known_t {
  std::string place;
  const config_key_t *key;
};

const std::vector<known_t> &known_places() {
  static const std::vector<known_t> all = [] {
    std::vector<known_t> result;
    for (const config_key_t &key : config_keys())
      for (std::string &place : places_of(key)) result.push_back({std::move(place), &key});
    return result;
  }();
  return all;
}

bool place_matches(const std::string &pattern, const std::string &place) {
  const auto wanted = split(pattern, '/'), given = split(place, '/');
  return wanted.size() == given.size() && std::equal(wanted.begin(), wanted.end(), given.begin(), name_matches);
}

const config_key_t *find_key(const std::string &place) {
  for (const known_t &known : known_places())
    if (place_matches(known.place, place)) return known.key;
  return nullptr;
}

// Is there a key at the place or below it?
bool leads_somewhere(const std::string &place) {
  const auto given = split(place, '/');
  return std::any_of(known_places().begin(), known_places().end(), [&](const known_t &known) {
    const auto wanted = split(known.place, '/');
    return wanted.size() >= given.size() &&
           std::equal(given.begin(), given.end(), wanted.begin(),
                      [](auto name, auto pattern) { return name_matches(pattern, name); });
  });
}

// Levenshtein's distance.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); j++) row[j] = j;
  for (size_t i = 1; i <= a.size(); i++) {
    size_t corner = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); j++) {
      const size_t above = row[j];
      row[j] = std::min({above + 1, row[j - 1] + 1, corner + (a[i - 1] != b[j - 1])});
      corner = above;
    }
  }
  return row[b.size()];
}

// The known name nearest to an unknown one among those that can stand there, else the nearest place of all.
std::string nearest(const std::string &parent, const std::string &name) {
  const auto above = split(parent, '/');
  const size_t depth = parent.empty() ? 0 : above.size();
  std::string best;
  size_t best_distance = std::max<size_t>(2, name.size() / 2);
  for (const known_t &known : known_places()) {
    const auto steps = split(known.place, '/');
    if (steps.size() <= depth ||
        !std::equal(above.begin(), above.begin() + static_cast<ptrdiff_t>(depth), steps.begin(),
                    [](auto given, auto pattern) { return name_matches(pattern, given); }))
      continue;
    const size_t d = distance(name, steps[depth]);
    if (d < best_distance) {
      best_distance = d;
      best = steps[depth];
    }
  }
  if (!best.empty()) return best;
  for (const known_t &known : known_places())
    if (split(known.place, '/').back() == name) return known.place;
  return "";
}

std::string unreadable(const config_key_t &key, const std::string &text) {
  uint64_t number;
  int64_t integer_value;
  double decimal_value;
  bool flag;
  krel_uuid_t id;
  int64_t when;
  int at = 0;
  switch (key.kind) {
    case integer:
      return krel_parse_int64(text, &integer_value) ? "" : "an integer";
    case decimal:
      return krel_parse_double(text, &decimal_value) ? "" : "a decimal number";
    case boolean:
      return krel_confstr_parse_boolean(text, &flag) ? "" : "true, on, yes, 1, false, off, no or 0";
    case duration:
      return krel_confstr_parse_duration(text, krel_get_durations_ms(), &number)
                 ? ""
                 : "a duration such as 30s or 1d12h";
    case size:
      return krel_confstr_parse_size(text, &number) ? "" : "a size in bytes such as 4096, 64K or 2GiB";
    case uuid:
      return krel_uuid_parse(text.c_str(), id) == 0 ? "" : "a UUID";
    case port:
      return krel_parse_uint64(text, &number) && number < 65536 ? "" : "a port from 0 to 65535";
    case time:
      return krel_confstr_parse_time_gm(text, &when) ? "" : "a time such as 2026-01-31T12:00:00Z";
    case choice: {
      const auto choices = split(key.choices, ' ');
      if (std::find(choices.begin(), choices.end(), text) != choices.end()) return "";
      return fmt::format("{}{}", choices.size() > 1 ? "one of " : "", key.choices);
    }
    case search:
      if (dorn_metric_tag_search_parse(text, &at)) return "";
      return fmt::format("a tag search; this one is wrong at byte {}", at);
    default:
      return "";
  }
}

class checker_c {
 public:
  explicit checker_c(FILE *out) : m_out(out) {}
  void element(const krel_conf_section_t &section, const std::string &place);
  void required();
  void listeners();
  int faults() const { return m_faults; }

 private:
  void fault(const std::string &where, const std::string &what) {
    fmt::print(m_out, "{}: {}\n", where, what);
    m_faults++;
  }
  static std::string where(const xmlNode *node) {
    return fmt::format("{}:{}", krel_conf_config_filename(), xmlGetLineNo(node));
  }
  void value(const krel_conf_section_t &section, const char *path, const std::string &place);
  void directory_at(const xmlNode *node, const std::string &place, std::string path);

  FILE *const m_out;
  int m_faults = 0;
  std::set<std::string> m_seen;
};

void checker_c::directory_at(const xmlNode *node, const std::string &place, std::string path) {
  if (const size_t at = path.find("{node}"); at != std::string::npos) path.resize(at);
  std::filesystem::path there(path);
  std::error_code code;
  while (!there.empty() && !std::filesystem::exists(there, code) && there.has_parent_path() &&
         there != there.parent_path())
    there = there.parent_path();
  const bool to_be_made = place != "rest/@document_root" && place != "graphite/whisper/@directory";
  if (!to_be_made && there != std::filesystem::path(path))
    return fault(where(node), fmt::format("{}: {} does not exist", place, path));
  if (!to_be_made) return;
  const char *why = !std::filesystem::is_directory(there, code) ? "is no directory"
                    : access(there.c_str(), W_OK | X_OK) != 0   ? "is not writable"
                                                                : nullptr;
  if (why) fault(where(node), fmt::format("{}: {} cannot be made: {} {}", place, path, there.string(), why));
}

void checker_c::value(const krel_conf_section_t &section, const char *path, const std::string &place) {
  const xmlNode *node = krel_conf_section_to_xmlnodeptr(section);
  const config_key_t *key = find_key(place);
  if (!key) {
    const size_t slash = place.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : place.substr(0, slash);
    const std::string name = slash == std::string::npos ? place : place.substr(slash + 1);
    const std::string close = nearest(parent, name);
    return fault(where(node),
                 fmt::format("{} is not known{}", place, close.empty() ? "" : "; did you mean " + close + "?"));
  }
  for (const known_t &known : known_places())
    if (known.key == key && place_matches(known.place, place)) m_seen.insert(known.place);
  std::string text;
  krel_conf_get_string(section, path, &text);
  if (const std::string wanted = unreadable(*key, text); !wanted.empty())
    return fault(where(node), fmt::format("{} is \"{}\": write {}", place, text, wanted));
  if (key->kind == directory && !text.empty()) directory_at(node, place, text);
}

void checker_c::element(const krel_conf_section_t &section, const std::string &place) {
  const xmlNode *node = krel_conf_section_to_xmlnodeptr(section);
  const std::string below = place.empty() ? "" : place + "/";
  if (!place.empty() && !leads_somewhere(place)) return value(section, ".", place);
  for (const xmlAttr *attribute = node->properties; attribute; attribute = attribute->next) {
    const std::string name = reinterpret_cast<const char *>(attribute->name);
    if (name != "env") value(section, ("@" + name).c_str(), below + "@" + name);
  }
  const auto children = krel_conf_get_sections_read(section, "*");
  const config_key_t *key = place.empty() ? nullptr : find_key(place);
  if (key && key->kind == repeated) m_seen.insert(std::string(key->place));
  if (key && key->kind != repeated && children.empty()) return value(section, ".", place);
  for (const auto &child : children)
    if (krel_conf_section_name(child) != "include") element(child, below + krel_conf_section_name(child));
}

// What is required of an element that may be left out is asked for only where the element stands.
void checker_c::required() {
  for (const known_t &known : known_places()) {
    if (known.key->fallback != "-" || m_seen.count(known.place)) continue;
    const size_t slash = known.place.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : known.place.substr(0, slash);
    const config_key_t *above = parent.empty() ? nullptr : find_key(parent);
    if (above && above->kind == repeated && !m_seen.count(parent)) continue;
    if (known.place == "histogram/rollup" &&
        krel_conf_get_sections_read(KREL_CONF_ROOT, "/velmar/histogram").empty())
      continue;
    if (known.place == "topology/@next") continue;
    fault(krel_conf_config_filename(), fmt::format("{} is missing: {}", known.place, known.key->meaning));
  }
}

void checker_c::listeners() {
  for (const auto &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "/velmar/listeners/listener")) {
    std::string address = "0.0.0.0", port_text;
    uint64_t number = 0;
    krel_conf_get_string(section, "@address", &address);
    if (!krel_conf_get_string(section, "@port", &port_text) || !krel_parse_uint64(port_text, &number) ||
        number == 0 || number > 65535)
      continue;
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(number));
    if (address == "*") address = "0.0.0.0";
    if (inet_pton(AF_INET, address.c_str(), &to.sin_addr) != 1) continue;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
      fault(where(krel_conf_section_to_xmlnodeptr(section)),
            fmt::format("listeners/listener: {}:{}: {}", address, number, strerror(errno)));
    close(fd);
  }
}

}  // namespace

int config_check(const std::string &config_file, FILE *out) {
  if (!krel_conf_load(config_file.c_str())) return 2;
  const auto root = krel_conf_get_section_read(KREL_CONF_ROOT, "/*");
  if (krel_conf_section_name(root) != "velmar") {
    fmt::print(out, "{}: the root is <{}>, not <velmar>\n", config_file, krel_conf_section_name(root));
    return 1;
  }
  checker_c checker(out);
  checker.element(root, "");
  checker.required();
  checker.listeners();
  if (checker.faults() == 0) fmt::print(out, "{}: ok\n", config_file);
  return checker.faults() == 0 ? 0 : 1;
}
