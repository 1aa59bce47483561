#include "platform/krel/base/krel_conf_document.h"

#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_conf_env.h"
#include "platform/krel/base/krel_conf_file.h"

namespace {

constexpr size_t k_max_bytes = 64 << 20;  // of all files
constexpr size_t k_max_includes_deep = 16;
constexpr size_t k_max_files = 1000;
constexpr size_t k_max_nodes = 250'000;  // a file included many times counts each time

const xmlChar *xc(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}
std::string_view view(const xmlChar *text) {
  return text == nullptr ? std::string_view() : reinterpret_cast<const char *>(text);
}

struct xml_free_t {
  void operator()(xmlChar *text) const { xmlFree(text); }
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
  void operator()(xmlXPathContext *context) const { xmlXPathFreeContext(context); }
  void operator()(xmlXPathObject *object) const { xmlXPathFreeObject(object); }
};
template <typename T>
using xml_ptr = std::unique_ptr<T, xml_free_t>;

// No DTD, hence no entities beyond XML's own five; no network; libxml2's own bounds on depth and size.
krel_conf_doc_t parse(const std::string &path, std::string_view text, std::string *error) {
  xmlInitParser();
  xml_ptr<xmlParserCtxt> parser(xmlNewParserCtxt());
  bool dtd = false;
  parser->_private = &dtd;
  parser->sax->internalSubset = [](void *closure, const xmlChar *, const xmlChar *, const xmlChar *) {
    auto *p = static_cast<xmlParserCtxt *>(closure);
    *static_cast<bool *>(p->_private) = true;
    xmlStopParser(p);
  };
  krel_conf_doc_t doc(
      xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), path.c_str(), nullptr,
                        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES));
  if (dtd) {
    *error = fmt::format("{}: a document type declaration is not allowed", path);
    return nullptr;
  }
  if (!doc || xmlDocGetRootElement(doc.get()) == nullptr) {
    const xmlError *last = xmlCtxtGetLastError(parser.get());
    std::string reason = last != nullptr && last->message != nullptr ? last->message : "not an XML document\n";
    while (!reason.empty() && reason.back() == '\n') reason.pop_back();
    *error = fmt::format("{}:{}: {}", path, last != nullptr ? last->line : 0, reason);
    return nullptr;
  }
  return doc;
}

bool is_include(const xmlNode *node) {
  return node->type == XML_ELEMENT_NODE && view(node->name) == "include" &&
         xmlHasProp(const_cast<xmlNode *>(node), xc("file")) != nullptr;
}

std::string attribute(const xmlNode *node, const char *name) {
  xml_ptr<xmlChar> value(xmlGetNoNsProp(const_cast<xmlNode *>(node), xc(name)));
  return std::string(view(value.get()));
}

bool says_env_off(const xmlNode *element) {
  bool on = true;
  return krel_confstr_parse_boolean(attribute(element, "env"), &on) && !on;
}

const xmlNode *element_of(const xmlNode *node) {
  return node->type == XML_ELEMENT_NODE ? node : node->parent;
}

std::string text_of(const xmlNode *element) {
  std::string text;
  for (const xmlNode *child = element->children; child != nullptr; child = child->next)
    if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) text += view(child->content);
  constexpr const char *k_blanks = " \t\r\n";
  size_t first = text.find_first_not_of(k_blanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(k_blanks) - first + 1);
}

}  // namespace

void krel_conf_doc_free_t::operator()(_xmlDoc *doc) const {
  xmlFreeDoc(doc);
}

// ---- snapshot

_xmlNode *krel_conf_snapshot_c::document_node() const {
  return reinterpret_cast<xmlNode *>(m_doc.get());
}

bool krel_conf_snapshot_c::select(const _xmlNode *context, const char *path, std::vector<_xmlNode *> *out,
                                  std::string *error) const {
  out->clear();
  xml_ptr<xmlXPathContext> xpath(xmlXPathNewContext(m_doc.get()));
  xpath->node = context != nullptr ? const_cast<xmlNode *>(context) : document_node();
  xpath->opLimit = 50'000'000;
  xpath->error = [](void *, xmlErrorPtr) {};
  xml_ptr<xmlXPathObject> found(xmlXPathEvalExpression(xc(path), xpath.get()));
  if (!found || found->type != XPATH_NODESET) {
    *error = fmt::format("'{}' is not an XPath that selects nodes", path);
    return false;
  }
  if (found->nodesetval == nullptr) return true;
  xmlXPathNodeSetSort(found->nodesetval);
  for (int i = 0; i < found->nodesetval->nodeNr; i++) {
    xmlNode *node = found->nodesetval->nodeTab[i];
    if (node->type == XML_ELEMENT_NODE || node->type == XML_ATTRIBUTE_NODE || node->type == XML_TEXT_NODE)
      out->push_back(node);
  }
  return true;
}

bool krel_conf_snapshot_c::value_of(const _xmlNode *node, std::string *out, std::string *error) const {
  std::string raw;
  if (node->type == XML_ELEMENT_NODE) {
    raw = text_of(node);
  } else {
    xml_ptr<xmlChar> content(xmlNodeGetContent(node));
    raw = view(content.get());
  }
  if (raw.find("${") == std::string::npos || env_off(node)) {
    *out = std::move(raw);
    return true;
  }
  return krel_conf_expand_env(raw, out, error);
}

bool krel_conf_snapshot_c::env_off(const _xmlNode *node) const {
  for (const xmlNode *e = element_of(node); e != nullptr && e->type == XML_ELEMENT_NODE; e = e->parent) {
    if (says_env_off(e)) return true;
    auto include = m_includes.find(e);
    if (include != m_includes.end() && include->second.env_off) return true;
  }
  return false;
}

std::string krel_conf_snapshot_c::describe(const _xmlNode *node) const {
  const xmlNode *element = element_of(node);
  const std::string *file = &m_path;
  for (const xmlNode *e = element->parent; e != nullptr; e = e->parent) {
    auto include = m_includes.find(e);
    if (include == m_includes.end()) continue;
    file = &include->second.path;
    break;
  }
  std::string where = fmt::format("{}:{}: ", *file, xmlGetLineNo(element));
  if (node->type == XML_ATTRIBUTE_NODE) where += fmt::format("attribute \"{}\" of ", view(node->name));
  return where + fmt::format("<{}>", view(element->name));
}

_xmlNode *krel_conf_snapshot_c::source_of(const _xmlNode *node) {
  return static_cast<xmlNode *>(element_of(node)->_private);
}

// ---- sources

// A file's document; its `_private` points back here, that of an <include> to the file it takes in.
struct krel_conf_sources_c::source_t {
  std::string path;
  krel_conf_doc_t doc;
  bool declared = false;  // begins with <?xml ...?>
  bool changed = false;
};

struct krel_conf_sources_c::merge_t {
  krel_conf_snapshot_c *snapshot;
  std::vector<source_t *> above;
  size_t nodes;
  std::string *error;
};

krel_conf_sources_c::~krel_conf_sources_c() = default;

const std::string &krel_conf_sources_c::path() const {
  return m_sources.front()->path;
}

std::unique_ptr<krel_conf_sources_c> krel_conf_sources_c::load(const std::string &path,
                                                               const std::string_view *text,
                                                               std::string *error) {
  std::unique_ptr<krel_conf_sources_c> sources(new krel_conf_sources_c);
  source_t *main = sources->add(path, text, error);
  if (main == nullptr) return nullptr;
  std::vector<source_t *> above{main};
  if (!sources->resolve_includes(main, xmlDocGetRootElement(main->doc.get()), &above, error)) return nullptr;
  return sources;
}

krel_conf_sources_c::source_t *krel_conf_sources_c::add(const std::string &path, const std::string_view *text,
                                                        std::string *error) {
  auto source = std::make_unique<source_t>();
  source->path = krel_conf_absolute(path);
  for (auto &known : m_sources)
    if (known->path == source->path) return known.get();
  if (m_sources.size() >= k_max_files) {
    *error = fmt::format("{}: more than {} files are included", source->path, k_max_files);
    return nullptr;
  }
  std::string read;
  if (text == nullptr) {
    if (!krel_conf_read_file(source->path, k_max_bytes, &read, error)) return nullptr;
  } else {
    read = *text;
  }
  m_bytes += read.size();
  if (m_bytes > k_max_bytes) {
    *error = fmt::format("{}: the configuration has more than {} bytes", source->path, k_max_bytes);
    return nullptr;
  }
  source->doc = parse(source->path, read, error);
  if (!source->doc) return nullptr;
  source->declared = read.starts_with("<?xml");
  source->doc->_private = source.get();
  m_sources.push_back(std::move(source));
  return m_sources.back().get();
}

bool krel_conf_sources_c::resolve_includes(source_t *source, _xmlNode *node, std::vector<source_t *> *above,
                                           std::string *error) {
  for (xmlNode *child = node->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) continue;
    if (!is_include(child)) {
      if (!resolve_includes(source, child, above, error)) return false;
      continue;
    }
    if (child->_private != nullptr) continue;
    std::string where = fmt::format("{}:{}: <include>", source->path, xmlGetLineNo(child)), file;
    std::string reason;
    if (!krel_conf_expand_env(attribute(child, "file"), &file, &reason)) {
      *error = where + ": " + reason;
      return false;
    }
    size_t known = m_sources.size();
    source_t *included = add(krel_conf_beside(source->path, file), nullptr, &reason);
    if (included == nullptr) {
      *error = where + ": " + reason;
      return false;
    }
    if (std::find(above->begin(), above->end(), included) != above->end() ||
        above->size() > k_max_includes_deep) {
      *error = fmt::format("{}: '{}' {}", where, file,
                           above->size() > k_max_includes_deep ? "is included too deep" : "includes itself");
      return false;
    }
    child->_private = included;
    if (m_sources.size() == known) continue;  // another <include> has resolved it, or is about to
    above->push_back(included);
    if (!resolve_includes(included, xmlDocGetRootElement(included->doc.get()), above, error)) return false;
    above->pop_back();
  }
  return true;
}

std::shared_ptr<const krel_conf_snapshot_c> krel_conf_sources_c::merge(std::string *error) {
  source_t *main = m_sources.front().get();
  std::vector<source_t *> above{main};
  xmlNode *root = xmlDocGetRootElement(main->doc.get());
  if (root == nullptr) {
    *error = fmt::format("{}: the root element is gone", main->path);
    return nullptr;
  }
  // after direct edits there may be <include>s that are new
  if (!resolve_includes(main, root, &above, error)) return nullptr;
  auto snapshot = std::make_shared<krel_conf_snapshot_c>();
  snapshot->m_path = main->path;
  snapshot->m_doc.reset(xmlNewDoc(xc("1.0")));
  merge_t merge{snapshot.get(), {main}, 0, error};
  if (!merge_children(reinterpret_cast<xmlNode *>(main->doc.get()), snapshot->document_node(), &merge))
    return nullptr;
  return snapshot;
}

bool krel_conf_sources_c::merge_children(_xmlNode *from, _xmlNode *to, merge_t *merge) {
  for (xmlNode *child = from->children; child != nullptr; child = child->next) {
    if (++merge->nodes > k_max_nodes) {
      *merge->error = fmt::format("{}: the configuration has more than {} nodes", path(), k_max_nodes);
      return false;
    }
    bool element = child->type == XML_ELEMENT_NODE;
    xmlNode *copy = xmlDocCopyNode(child, merge->snapshot->m_doc.get(), element ? 2 : 1);
    if (copy == nullptr) continue;
    copy->_private = child;
    copy = xmlAddChild(to, copy);
    if (!element) continue;
    xmlNode *inner = child;
    if (auto *included = static_cast<source_t *>(is_include(child) ? child->_private : nullptr)) {
      if (std::find(merge->above.begin(), merge->above.end(), included) != merge->above.end()) {
        *merge->error = fmt::format("{}: includes itself", included->path);
        return false;
      }
      if (merge->above.size() > k_max_includes_deep) {
        *merge->error = fmt::format("{}: is included too deep", included->path);
        return false;
      }
      inner = xmlDocGetRootElement(included->doc.get());
      merge->snapshot->m_includes[copy] = {included->path, says_env_off(inner)};
      merge->above.push_back(included);
    }
    if (!merge_children(inner, copy, merge)) return false;
    if (inner != child) merge->above.pop_back();
  }
  return true;
}

void krel_conf_sources_c::mark_changed(_xmlNode *source_node) {
  static_cast<source_t *>(source_node->doc->_private)->changed = true;
}

_xmlNode *krel_conf_sources_c::included_root(_xmlNode *source_node) {
  if (!is_include(source_node) || source_node->_private == nullptr) return nullptr;
  return xmlDocGetRootElement(static_cast<source_t *>(source_node->_private)->doc.get());
}

bool krel_conf_sources_c::write_changed(std::string *error) {
  for (auto &source : m_sources) {
    if (!source->changed) continue;
    std::unique_ptr<xmlBuffer, decltype(&xmlBufferFree)> buffer(xmlBufferCreate(), &xmlBufferFree);
    const char *encoding = reinterpret_cast<const char *>(source->doc->encoding);
    xmlSaveCtxt *save = xmlSaveToBuffer(buffer.get(), encoding, source->declared ? 0 : XML_SAVE_NO_DECL);
    bool saved = save != nullptr && xmlSaveDoc(save, source->doc.get()) >= 0;
    if (save != nullptr) saved = xmlSaveClose(save) >= 0 && saved;
    if (!saved) {
      *error = fmt::format("{}: cannot be written as XML", source->path);
      return false;
    }
    std::string_view text(reinterpret_cast<const char *>(xmlBufferContent(buffer.get())),
                          static_cast<size_t>(xmlBufferLength(buffer.get())));
    if (!krel_conf_replace_file(source->path, text, error)) return false;
    source->changed = false;
  }
  return true;
}
