#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_search_tree.h"

using ast_t = dorn_metric_tag_search_ast_t;

namespace {

void append_b64(std::string_view bytes, char quote, std::string *out) {
  out->push_back('b');
  out->push_back(quote);
  const size_t used = out->size();
  out->resize(used + (bytes.size() + 2) / 3 * 4);
  dorn_b64_encode(bytes, out->data() + used);
  out->push_back(quote);
}

// A pattern can stand between slashes when each slash in it, and nothing else at its end, has a backslash
// before it.
bool can_stand_between_slashes(std::string_view pattern) {
  for (size_t i = 0; i < pattern.size(); i++) {
    if (pattern[i] == '/') return false;
    if (pattern[i] == '\\' && ++i == pattern.size()) return false;
  }
  return dorn_is_clean_utf8(pattern);
}

// Literal bytes that are read back as they stand.
bool can_stand_plain(std::string_view bytes, bool in_category) {
  if (bytes.empty() || bytes.front() == '/' || (bytes.starts_with("b/") && bytes.back() == '/')) return false;
  for (const char c : bytes) {
    if (!dorn_char_is(c, DORN_CHAR_SEARCH) || c == '*' || c == '?' || (c == ':' && in_category)) return false;
  }
  return dorn_is_clean_utf8(bytes);
}

const char *operator_text(dorn_metric_tag_search_op_e op) {
  switch (op) {
    case OP_AND_ARGS:
      return "and(";
    case OP_OR_ARGS:
      return "or(";
    case OP_NOT_ARGS:
      return "not(";
    case OP_HINT_ARGS:
      return "hint(";
    case OP_MATCH:
      break;
  }
  return "";
}

// What stands before a node's first argument, or all of a node that has none.
void append_opening(const ast_t *node, std::string *out) {
  if (node->m_match) {
    dorn_var_unparse(node->m_match->cat, true, out);
    out->push_back(':');
    dorn_var_unparse(node->m_match->name, false, out);
  } else if (node->m_args.empty() && node->m_op != OP_AND_ARGS) {
    *out += "or()";
  } else if (node->m_args.empty()) {
    *out += "and()";
  } else {
    *out += operator_text(node->m_op);
  }
}

void append_closing(const ast_t *node, std::string *out) {
  for (const auto &[name, value] : node->m_hints) {
    out->push_back(',');
    dorn_var_unparse_bytes(name, true, out);
    out->push_back(':');
    dorn_var_unparse_bytes(value, false, out);
  }
  out->push_back(')');
}

}  // namespace

void dorn_var_unparse_bytes(std::string_view bytes, bool in_category, std::string *out) {
  if (can_stand_plain(bytes, in_category)) {
    out->append(bytes);
  } else {
    append_b64(bytes, '"', out);
  }
}

void dorn_var_unparse(const dorn_var_t &var, bool in_category, std::string *out) {
  switch (var.m_kind) {
    case dorn_var_kind_e::exact:
      dorn_var_unparse_bytes(var.m_val, in_category, out);
      break;
    case dorn_var_kind_e::glob:
      out->append(var.m_val);
      break;
    case dorn_var_kind_e::regex:
      if (can_stand_between_slashes(var.m_val)) {
        out->push_back('/');
        out->append(var.m_val);
        out->push_back('/');
      } else {
        append_b64(var.m_val, '/', out);
      }
      break;
  }
}

bool dorn_metric_tag_search_unparse_limit_size(const ast_t *tree, size_t limit, std::string *text) {
  text->clear();
  std::vector<std::pair<const ast_t *, size_t>> open;  // a node and how many of its arguments are written
  const ast_t *next = tree;
  for (;;) {
    if (next) {
      append_opening(next, text);
      if (!next->m_args.empty()) open.emplace_back(next, 0);
    }
    if (text->size() > limit) {
      text->clear();
      return false;
    }
    if (open.empty()) return true;
    auto &[node, written] = open.back();
    if (written == node->m_args.size()) {
      append_closing(node, text);
      open.pop_back();
      next = nullptr;
    } else {
      if (written > 0) text->push_back(',');
      next = node->m_args[written++];
    }
  }
}

std::string dorn_metric_tag_search_unparse(const ast_t *tree) {
  std::string text;
  dorn_metric_tag_search_unparse_limit_size(tree, text.max_size(), &text);
  return text;
}
