#pragma once
// What a search tree is made of. For this library only.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/dorn/dorn_search.h"
#include "platform/dorn/dorn_var_impl.h"

struct dorn_match_terms_t {
  dorn_var_t cat;
  dorn_var_t name;
};

struct dorn_metric_tag_search_ast_t {
  using ast_t = dorn_metric_tag_search_ast_t;

  std::atomic<uint32_t> m_refs{1};
  dorn_metric_tag_search_op_e m_op;
  std::vector<ast_t *> m_args;                               // a reference each
  std::vector<std::pair<std::string, std::string>> m_hints;  // of OP_HINT_ARGS
  std::unique_ptr<dorn_match_terms_t> m_match;               // of OP_MATCH
  void *m_udata = nullptr;
  void (*m_udata_release)(void *) = nullptr;

  explicit dorn_metric_tag_search_ast_t(dorn_metric_tag_search_op_e op) : m_op(op) {}
  ~dorn_metric_tag_search_ast_t() { release_udata(); }  // the arguments are dropped by free
  void release_udata() {
    if (m_udata && m_udata_release) m_udata_release(m_udata);
  }
  // "not" and "hint" take one argument, a match none.
  bool has_room() const {
    return m_op != OP_MATCH && (m_op == OP_AND_ARGS || m_op == OP_OR_ARGS || m_args.empty());
  }
};

// One variable at the start of text, in its query form. Its value goes to *val; *size is what it took of the
// text. False: none stands there, or it is malformed (then *size is 0).
bool dorn_var_scan(std::string_view text, bool in_category, dorn_var_kind_e *kind, std::string *val,
                   size_t *size);
