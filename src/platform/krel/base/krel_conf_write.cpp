// Loading, replacing and changing the document.

#include <fmt/format.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_conf_store.h"
#include "platform/krel/base/krel_log.h"

namespace {

const xmlChar *xc(const std::string &text) {
  return reinterpret_cast<const xmlChar *>(text.c_str());
}

// Where a change applies: an element of a file and, for an attribute, its name.
struct target_t {
  xmlNode *element = nullptr;
  std::string attribute;
};

// XML can carry it, and reading it back gives the same: no "${" that would be taken for a variable.
bool can_be_kept(std::string_view value, bool env_off) {
  if (!env_off && value.find("${") != std::string_view::npos) return false;
  for (char c : value) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 && u != '\t' && u != '\n' && u != '\r') return false;
  }
  return xmlCheckUTF8(xc(std::string(value))) != 0;
}

bool is_name(std::string_view text) {
  return xmlValidateNCName(xc(std::string(text)), 0) == 0;
}

// The section's element in the current document, which may be younger than the section.
const xmlNode *context_now(const krel_conf_snapshot_c &snapshot, const krel_conf_section_t &section) {
  if (!section) return snapshot.document_node();
  xmlChar *place = xmlGetNodePath(section->node);
  std::vector<xmlNode *> nodes;
  std::string error;
  bool found =
      place != nullptr && snapshot.select(nullptr, reinterpret_cast<const char *>(place), &nodes, &error);
  xmlFree(place);
  return found && !nodes.empty() ? nodes.front() : nullptr;
}

xmlNode *first_match(const krel_conf_snapshot_c &snapshot, const xmlNode *context, const char *path) {
  std::vector<xmlNode *> nodes;
  std::string error;
  if (!snapshot.select(context, path, &nodes, &error) || nodes.empty()) return nullptr;
  return nodes.front();
}

// Plain steps "a/b/@c", also "/a/..." and "//a/...".
bool split_steps(std::string_view path, std::vector<std::string> *steps) {
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  while (!path.empty()) {
    size_t end = std::min(path.find('/'), path.size());
    std::string_view step = path.substr(0, end);
    bool last = end == path.size();
    if (!is_name(last && step.starts_with('@') ? step.substr(1) : step)) return false;
    steps->emplace_back(step);
    path.remove_prefix(last ? end : end + 1);
  }
  return !steps->empty();
}

// Walks as far as the document goes and makes the rest.
target_t make(const krel_conf_snapshot_c &snapshot, const xmlNode *context, std::string_view path) {
  std::vector<std::string> steps;
  if (!split_steps(path, &steps)) return {};
  size_t slashes = path.starts_with("//") ? 2 : path.starts_with('/') ? 1 : 0;
  std::string attribute;
  if (steps.back().starts_with('@')) {
    attribute = steps.back().substr(1);
    steps.pop_back();
  }
  const xmlNode *at = slashes > 0 ? snapshot.document_node() : context;
  size_t known = 0;
  for (; known < steps.size(); known++) {
    std::string step = (known == 0 && slashes == 2 ? "//" : "") + steps[known];
    const xmlNode *next = first_match(snapshot, at, step.c_str());
    if (next == nullptr) break;
    at = next;
  }
  if (at == snapshot.document_node()) return {};  // a second root is not to be made
  xmlNode *element = krel_conf_snapshot_c::source_of(at);
  if (known < steps.size())
    if (xmlNode *root = krel_conf_sources_c::included_root(element)) element = root;
  for (; known < steps.size(); known++) element = xmlNewChild(element, nullptr, xc(steps[known]), nullptr);
  return {element, attribute};
}

void set_text(xmlNode *element, const std::string &value) {
  for (xmlNode *child = element->children; child != nullptr;) {
    xmlNode *next = child->next;
    if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) {
      xmlUnlinkNode(child);
      xmlFreeNode(child);
    }
    child = next;
  }
  xmlNode *text = xmlNewDocText(element->doc, xc(value));
  if (element->children != nullptr)
    xmlAddPrevSibling(element->children, text);
  else
    xmlAddChild(element, text);
}

}  // namespace

krel_conf_store_c &krel_conf_store_c::get() {
  static krel_conf_store_c *store = new krel_conf_store_c;
  return *store;
}

bool krel_conf_store_c::load(const char *path, const std::string_view *text) {
  std::unique_lock changes = lock_changes();
  std::string error;
  std::unique_ptr<krel_conf_sources_c> sources = krel_conf_sources_c::load(path, text, &error);
  std::shared_ptr<const krel_conf_snapshot_c> snapshot;
  if (sources) snapshot = sources->merge(&error);
  if (!snapshot) {
    krel_log(krel_error, "configuration error: %s\n", error.c_str());
    return false;
  }
  m_sources = std::move(sources);
  m_stale = false;
  krel_lock_c lock(m_mutex);
  m_current = snapshot;
  return true;
}

std::shared_ptr<const krel_conf_snapshot_c> krel_conf_store_c::current() {
  krel_lock_c lock(m_mutex);
  return m_current;
}

std::string krel_conf_store_c::filename() {
  std::unique_lock changes = lock_changes();
  return m_sources ? m_sources->path() : "";
}

bool krel_conf_store_c::publish() {
  std::string error;
  std::shared_ptr<const krel_conf_snapshot_c> snapshot = m_sources->merge(&error);
  m_stale = !snapshot;
  if (!snapshot) {
    krel_log(krel_error, "configuration error: %s\n", error.c_str());
    return false;
  }
  krel_lock_c lock(m_mutex);
  m_current = snapshot;
  return true;
}

bool krel_conf_set_string(const krel_conf_section_t &section, const char *path, std::string_view value) {
  krel_conf_store_c &store = krel_conf_store_c::get();
  std::unique_lock changes = store.lock_changes();
  if (store.stale() && !store.publish()) return false;
  std::shared_ptr<const krel_conf_snapshot_c> snapshot = store.current();
  if (!snapshot) return false;
  const xmlNode *context = context_now(*snapshot, section);
  if (context == nullptr) return false;
  target_t target;
  bool env_off = false;
  if (xmlNode *found = first_match(*snapshot, context, path)) {
    env_off = snapshot->env_off(found);
    target.element = krel_conf_snapshot_c::source_of(found);
    if (found->type == XML_ATTRIBUTE_NODE) target.attribute = reinterpret_cast<const char *>(found->name);
  }
  if (!can_be_kept(value, env_off)) return false;
  if (target.element == nullptr) target = make(*snapshot, context, path);
  if (target.element == nullptr) return false;
  krel_conf_sources_c::mark_changed(target.element);
  if (target.attribute.empty())
    set_text(target.element, std::string(value));
  else
    xmlSetProp(target.element, xc(target.attribute), xc(std::string(value)));
  return store.publish();
}

krel_conf_section_write_t krel_conf_get_section_write(const krel_conf_section_t &section, const char *path) {
  krel_conf_section_write_t write;
  krel_conf_store_c &store = krel_conf_store_c::get();
  write.m_lock = store.lock_changes();
  std::shared_ptr<const krel_conf_snapshot_c> snapshot;
  if (!store.stale() || store.publish()) snapshot = store.current();
  const xmlNode *context = snapshot ? context_now(*snapshot, section) : nullptr;
  xmlNode *found = context != nullptr ? first_match(*snapshot, context, path) : nullptr;
  if (found == nullptr || found->type != XML_ELEMENT_NODE) {
    write.m_lock.unlock();
    return write;
  }
  write.m_node = krel_conf_snapshot_c::source_of(found);
  krel_conf_sources_c::mark_changed(write.m_node);
  return write;
}

krel_conf_section_write_t::krel_conf_section_write_t(krel_conf_section_write_t &&other) noexcept
    : m_lock(std::move(other.m_lock)), m_node(other.m_node) {
  other.m_node = nullptr;
}

krel_conf_section_write_t::~krel_conf_section_write_t() {
  if (m_node != nullptr) krel_conf_store_c::get().publish();
}

bool krel_conf_write_file(std::string *error) {
  krel_conf_store_c &store = krel_conf_store_c::get();
  std::unique_lock changes = store.lock_changes();
  if (store.sources() == nullptr) {
    *error = "no configuration is loaded";
    return false;
  }
  return store.sources()->write_changed(error);
}
