#pragma once
// The document behind krel_conf: the files as they are written (sources) and, made of them, the
// document that readers see (a snapshot). Only krel_conf*.cpp, tests and fuzzers include it.

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct _xmlDoc;
struct _xmlNode;
struct _xmlAttr;

struct krel_conf_doc_free_t {
  void operator()(_xmlDoc *doc) const;
};
using krel_conf_doc_t = std::unique_ptr<_xmlDoc, krel_conf_doc_free_t>;

// A merged document. Immutable: safe to read from any thread.
class krel_conf_snapshot_c {
 public:
  // The matching nodes in document order; false with the reason when the expression is none.
  // A null context is the document itself.
  bool select(const _xmlNode *context, const char *path, std::vector<_xmlNode *> *out,
              std::string *error) const;
  // An attribute's value or an element's text, the environment put in unless switched off. False with
  // the reason when a variable is unset and has no default.
  bool value_of(const _xmlNode *node, std::string *out, std::string *error) const;
  bool env_off(const _xmlNode *node) const;
  // "/etc/x.conf:12: attribute \"port\" of <listener>"
  std::string describe(const _xmlNode *node) const;
  // The node's place in the files, for changes: an attribute's is its element.
  static _xmlNode *source_of(const _xmlNode *node);
  _xmlNode *document_node() const;

 private:
  friend class krel_conf_sources_c;
  struct include_t {
    std::string path;
    bool env_off;
  };
  std::string m_path;
  krel_conf_doc_t m_doc;
  std::map<const _xmlNode *, include_t> m_includes;
};

// The files of one document. Not thread-safe.
class krel_conf_sources_c {
 public:
  // Null with the reason. `text` null: the file is read.
  static std::unique_ptr<krel_conf_sources_c> load(const std::string &path, const std::string_view *text,
                                                   std::string *error);
  ~krel_conf_sources_c();

  // The document as it now is, includes put in. Null with the reason when it breaks the limits.
  std::shared_ptr<const krel_conf_snapshot_c> merge(std::string *error);
  static void mark_changed(_xmlNode *source_node);
  // The root of the file that this <include> takes in; null for any other element.
  static _xmlNode *included_root(_xmlNode *source_node);
  bool write_changed(std::string *error);
  const std::string &path() const;

 private:
  struct source_t;
  struct merge_t;
  krel_conf_sources_c() = default;
  source_t *add(const std::string &path, const std::string_view *text, std::string *error);
  bool resolve_includes(source_t *source, _xmlNode *node, std::vector<source_t *> *above, std::string *error);
  bool merge_children(_xmlNode *from, _xmlNode *to, merge_t *merge);

  std::vector<std::unique_ptr<source_t>> m_sources;  // the first is the main file
  size_t m_bytes = 0;
};
