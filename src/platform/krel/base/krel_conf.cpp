#include "platform/krel/base/krel_conf.h"

#include <fmt/format.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>

#include "platform/krel/base/krel_conf_store.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

using snapshot_ptr = std::shared_ptr<const krel_conf_snapshot_c>;

snapshot_ptr snapshot_of(const krel_conf_section_t &section) {
  return section ? section->snapshot : krel_conf_store_c::get().current();
}
const xmlNode *context_of(const krel_conf_section_t &section) {
  return section ? section->node : nullptr;
}

// The first match; null when there is none.
const xmlNode *find(const snapshot_ptr &snapshot, const krel_conf_section_t &section, const char *path) {
  if (!snapshot) return nullptr;
  std::vector<xmlNode *> nodes;
  std::string error;
  if (!snapshot->select(context_of(section), path, &nodes, &error))
    krel_fatal("configuration path: %s\n", error.c_str());
  return nodes.empty() ? nullptr : nodes.front();
}

// parse(text, out) says whether the text is what is wanted.
template <typename T, typename Parse>
bool get(const krel_conf_section_t &section, const char *path, const char *wanted, T *out, const Parse &parse) {
  snapshot_ptr snapshot = snapshot_of(section);
  const xmlNode *node = find(snapshot, section, path);
  if (node == nullptr) return false;
  std::string text, error;
  if (!snapshot->value_of(node, &text, &error))
    krel_conf_error(fmt::format("{}: {}", snapshot->describe(node), error));
  if (!parse(text, out))
    krel_conf_error(fmt::format("{} is \"{}\": write {}", snapshot->describe(node), text, wanted));
  return true;
}

template <typename T, typename Wide>
bool narrow(bool (*parse)(std::string_view, Wide *), std::string_view text, T *out) {
  Wide wide;
  if (!parse(text, &wide) || wide < std::numeric_limits<T>::min() || wide > std::numeric_limits<T>::max())
    return false;
  *out = static_cast<T>(wide);
  return true;
}

}  // namespace

void krel_conf_error(const std::string &what) {
  krel_log(krel_error, "configuration error: %s\n", what.c_str());
  krel_log_go_synch();
  std::fflush(nullptr);
  _exit(2);
}

bool krel_conf_load(const char *path) {
  return krel_conf_store_c::get().load(path, nullptr);
}

bool krel_conf_load_text(std::string_view text, const char *filename) {
  return krel_conf_store_c::get().load(filename, &text);
}

std::string krel_conf_config_filename() {
  return krel_conf_store_c::get().filename();
}

bool krel_conf_get_int32(const krel_conf_section_t &section, const char *path, int32_t *out) {
  return get(section, path, "an integer between -2147483648 and 2147483647", out,
             [](std::string_view text, int32_t *to) { return narrow<int32_t>(krel_parse_int64, text, to); });
}
bool krel_conf_get_uint32(const krel_conf_section_t &section, const char *path, uint32_t *out) {
  return get(section, path, "an integer between 0 and 4294967295", out,
             [](std::string_view text, uint32_t *to) { return narrow<uint32_t>(krel_parse_uint64, text, to); });
}
bool krel_conf_get_int64(const krel_conf_section_t &section, const char *path, int64_t *out) {
  return get(section, path, "an integer of 64 bits", out, krel_parse_int64);
}
bool krel_conf_get_uint64(const krel_conf_section_t &section, const char *path, uint64_t *out) {
  return get(section, path, "an integer of 0 or more, of 64 bits", out, krel_parse_uint64);
}
bool krel_conf_get_double(const krel_conf_section_t &section, const char *path, double *out) {
  return get(section, path, "a decimal number", out, krel_parse_double);
}
bool krel_conf_get_boolean(const krel_conf_section_t &section, const char *path, bool *out) {
  return get(section, path, "true, on, yes, 1, false, off, no or 0", out, krel_confstr_parse_boolean);
}
bool krel_conf_get_string(const krel_conf_section_t &section, const char *path, std::string *out) {
  return get(section, path, "text", out, [](const std::string &text, std::string *to) {
    *to = text;
    return true;
  });
}
bool krel_conf_get_stringbuf(const krel_conf_section_t &section, const char *path, char *out, size_t size) {
  std::string wanted = fmt::format("at most {} bytes", size - 1);
  return get(section, path, wanted.c_str(), out, [size](const std::string &text, char *to) {
    if (text.size() >= size) return false;
    std::memcpy(to, text.c_str(), text.size() + 1);
    return true;
  });
}
bool krel_conf_get_duration(const krel_conf_section_t &section, const char *path,
                            const krel_duration_units_t *units, uint64_t *out) {
  const char *wanted = units == krel_get_durations_s() ? "a duration of whole seconds such as 30s or 1d12h"
                       : units == krel_get_durations_ms()
                           ? "a duration of whole milliseconds such as 500ms or 30s"
                           : "a duration of whole microseconds such as 500us or 30s";
  return get(section, path, wanted, out, [units](std::string_view text, uint64_t *to) {
    return krel_confstr_parse_duration(text, units, to);
  });
}
bool krel_conf_get_size(const krel_conf_section_t &section, const char *path, uint64_t *out) {
  return get(section, path, "a size in bytes such as 4096, 64K or 2GiB", out, krel_confstr_parse_size);
}

std::vector<krel_conf_section_t> krel_conf_get_sections_read(const krel_conf_section_t &section,
                                                             const char *path) {
  std::vector<krel_conf_section_t> sections;
  snapshot_ptr snapshot = snapshot_of(section);
  if (!snapshot) return sections;
  std::vector<xmlNode *> nodes;
  std::string error;
  if (!snapshot->select(context_of(section), path, &nodes, &error))
    krel_log(krel_error, "configuration: %s\n", error.c_str());
  for (xmlNode *node : nodes)
    if (node->type == XML_ELEMENT_NODE)
      sections.push_back(std::make_shared<krel_conf_section_s>(krel_conf_section_s{snapshot, node}));
  return sections;
}

krel_conf_section_t krel_conf_get_section_read(const krel_conf_section_t &section, const char *path) {
  std::vector<krel_conf_section_t> sections = krel_conf_get_sections_read(section, path);
  return sections.empty() ? nullptr : sections.front();
}

bool krel_conf_section_is_empty(const krel_conf_section_t &section) {
  if (!section) return krel_conf_store_c::get().current() == nullptr;
  return section->node->children == nullptr && section->node->properties == nullptr;
}

std::string krel_conf_section_name(const krel_conf_section_t &section) {
  return section ? reinterpret_cast<const char *>(section->node->name) : "";
}

bool krel_conf_env_off(const krel_conf_section_t &section) {
  return section && section->snapshot->env_off(section->node);
}

bool krel_conf_write_section(const krel_conf_section_t &section, int fd) {
  snapshot_ptr snapshot = snapshot_of(section);
  if (!snapshot) return false;
  auto *doc = reinterpret_cast<xmlDoc *>(snapshot->document_node());
  xmlNode *node = section ? section->node : xmlDocGetRootElement(doc);
  xmlSaveCtxt *save = xmlSaveToFd(fd, "UTF-8", XML_SAVE_NO_DECL);
  if (save == nullptr) return false;
  bool written = xmlSaveTree(save, node) >= 0;
  written = xmlSaveClose(save) >= 0 && written;
  return written && ::write(fd, "\n", 1) == 1;
}

const _xmlNode *krel_conf_section_to_xmlnodeptr(const krel_conf_section_t &section) {
  return section ? section->node : nullptr;
}
