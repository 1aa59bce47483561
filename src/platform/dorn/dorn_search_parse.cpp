#include <optional>

#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_search_tree.h"

using ast_t = dorn_metric_tag_search_ast_t;

namespace {

// b"<base64>", at the start of the text.
bool scan_quoted(std::string_view text, std::string *val, size_t *size) {
  const size_t end = text.find('"', 2);
  if (end == std::string_view::npos) return false;
  const std::string_view digits = text.substr(2, end - 2);
  val->resize(digits.size() / 4 * 3);
  const ssize_t len = dorn_b64_decode(digits, val->data(), val->size());
  if (len < 0) return false;
  val->resize(static_cast<size_t>(len));
  *size = end + 1;
  return true;
}

// /pattern/: "\" takes the next byte along, so "\/" does not end it.
bool scan_pattern(std::string_view text, std::string *val, size_t *size) {
  for (size_t i = 1; i < text.size(); i++) {
    if (text[i] == '\\') {
      i++;
    } else if (text[i] == '/') {
      *val = text.substr(1, i - 1);
      *size = i + 1;
      return true;
    }
  }
  return false;
}

size_t plain_size(std::string_view text, bool in_category) {
  size_t size = 0;
  while (size < text.size() && dorn_char_is(text[size], DORN_CHAR_SEARCH) &&
         !(in_category && text[size] == ':')) {
    size++;
  }
  return size;
}

bool scan_var(std::string_view text, bool in_category, dorn_var_kind_e *kind, std::string *val, size_t *size) {
  if (text.starts_with("b\"")) {
    *kind = dorn_var_kind_e::exact;
    return scan_quoted(text, val, size);
  }
  if (text.starts_with('/')) {
    *kind = dorn_var_kind_e::regex;
    return scan_pattern(text, val, size);
  }
  const std::string_view plain = text.substr(0, plain_size(text, in_category));
  if (plain.empty()) return false;
  *size = plain.size();
  if (plain.size() >= 3 && plain.starts_with("b/") && plain.back() == '/') {
    *kind = dorn_var_kind_e::regex;
    const std::string_view digits = plain.substr(2, plain.size() - 3);
    val->resize(digits.size() / 4 * 3);
    const ssize_t len = dorn_b64_decode(digits, val->data(), val->size());
    if (len < 0) return false;
    val->resize(static_cast<size_t>(len));
    return true;
  }
  *kind = plain.find_first_of("*?") == std::string_view::npos ? dorn_var_kind_e::exact : dorn_var_kind_e::glob;
  *val = plain;
  return true;
}

class search_parser_c {
 public:
  search_parser_c(std::string_view text, bool compile) : m_text(text), m_compile(compile) {}
  dorn_metric_tag_search_ptr parse();
  size_t position() const { return m_at; }

 private:
  bool at_end() const { return m_at == m_text.size(); }
  bool at_char(char c) const { return !at_end() && m_text[m_at] == c; }
  void skip_blanks() {
    while (at_char(' ')) m_at++;
  }
  bool take(char c) {
    skip_blanks();
    if (!at_char(c)) return false;
    m_at++;
    return true;
  }
  bool open_operator();
  dorn_metric_tag_search_ptr parse_match();
  bool parse_var(dorn_var_t *var, dorn_tag_part_e part);
  bool parse_hint(ast_t *node);
  bool parse_hint_text(bool in_category, std::string *val);
  bool close_operators(dorn_metric_tag_search_ptr *node);

  std::string_view m_text;
  const bool m_compile;
  size_t m_at = 0;
  size_t m_nodes = 0;
  size_t m_pcres = 0;
  size_t m_pcre_bytes = 0;
  std::vector<dorn_metric_tag_search_ptr> m_open;  // operators whose ")" is yet to come
  std::string m_val;
};

std::optional<dorn_metric_tag_search_op_e> operator_of(std::string_view word) {
  if (word == "and") return OP_AND_ARGS;
  if (word == "or") return OP_OR_ARGS;
  if (word == "not") return OP_NOT_ARGS;
  if (word == "hint") return OP_HINT_ARGS;
  return std::nullopt;
}

// Takes "and (" and the like and opens its node.
bool search_parser_c::open_operator() {
  const std::string_view rest = m_text.substr(m_at);
  const size_t word_size = plain_size(rest.substr(0, 5), true);
  const auto op = operator_of(rest.substr(0, word_size));
  if (!op) return false;
  const size_t paren = rest.find_first_not_of(' ', word_size);
  if (paren == std::string_view::npos || rest[paren] != '(') return false;
  m_open.emplace_back(std::make_unique<ast_t>(*op).release());
  m_at += paren + 1;
  return true;
}

bool search_parser_c::parse_var(dorn_var_t *var, dorn_tag_part_e part) {
  dorn_var_kind_e kind;
  size_t size = 0;
  if (!dorn_var_scan(m_text.substr(m_at), part == dorn_tag_part_e::category, &kind, &m_val, &size))
    return false;
  if (kind == dorn_var_kind_e::regex) {
    m_pcre_bytes += m_val.size();
    if (++m_pcres > DORN_TAG_SEARCH_MAX_PCRES || m_pcre_bytes > DORN_TAG_SEARCH_MAX_PCRE_BYTES) return false;
  }
  var->init(kind, m_val, part);
  if (m_compile && !var->compile()) return false;
  m_at += size;
  return true;
}

dorn_metric_tag_search_ptr search_parser_c::parse_match() {
  auto node = dorn_metric_tag_search_ptr(std::make_unique<ast_t>(OP_MATCH).release());
  node->m_match = std::make_unique<dorn_match_terms_t>();
  if (!parse_var(&node->m_match->cat, dorn_tag_part_e::category)) return nullptr;
  if (take(':')) {
    skip_blanks();
    if (!parse_var(&node->m_match->name, dorn_tag_part_e::value)) return nullptr;
  } else {
    node->m_match->name.init(dorn_var_kind_e::glob, "*", dorn_tag_part_e::value);
  }
  return node;
}

bool search_parser_c::parse_hint_text(bool in_category, std::string *val) {
  skip_blanks();
  const std::string_view rest = m_text.substr(m_at);
  size_t size = 0;
  if (rest.starts_with("b\"")) {
    if (!scan_quoted(rest, val, &size)) return false;
  } else {
    size = plain_size(rest, in_category);
    *val = rest.substr(0, size);
  }
  if (size == 0 || val->size() > DORN_TAG_SEARCH_MAX_VAR) return false;
  m_at += size;
  return true;
}

bool search_parser_c::parse_hint(ast_t *node) {
  std::string name, value;
  if (!parse_hint_text(true, &name) || !take(':') || !parse_hint_text(false, &value)) return false;
  node->m_hints.emplace_back(std::move(name), std::move(value));
  return true;
}

// A node is complete: hands it to the operator around it, and closes each that ends here. True with *node null:
// the operator wants a further argument; true with *node set: it is the whole tree.
bool search_parser_c::close_operators(dorn_metric_tag_search_ptr *node) {
  while (!m_open.empty()) {
    ast_t *parent = m_open.back().get();
    if (*node) {
      parent->m_args.push_back(node->get());
      node->release();
    }
    skip_blanks();
    while (parent->m_op == OP_HINT_ARGS && take(',')) {
      if (!parse_hint(parent)) return false;
      skip_blanks();
    }
    if (parent->has_room() && take(',')) return true;
    if (!take(')')) return false;
    *node = std::move(m_open.back());
    m_open.pop_back();
  }
  return true;
}

dorn_metric_tag_search_ptr search_parser_c::parse() {
  for (;;) {
    skip_blanks();
    if (m_open.size() >= DORN_TAG_SEARCH_MAX_DEPTH || ++m_nodes > DORN_TAG_SEARCH_MAX_NODES) return nullptr;
    dorn_metric_tag_search_ptr node;
    if (open_operator()) {
      skip_blanks();
      if (m_open.back()->m_op > OP_OR_ARGS || !at_char(')')) continue;
    } else {
      node = parse_match();
      if (!node) return nullptr;
    }
    if (!close_operators(&node)) return nullptr;
    if (!node) continue;
    skip_blanks();
    if (!at_end()) return nullptr;
    return node;
  }
}

dorn_metric_tag_search_ptr parse(std::string_view text, int *error_offset, bool compile) {
  search_parser_c parser(text.substr(0, DORN_TAG_SEARCH_MAX_TEXT), compile);
  dorn_metric_tag_search_ptr tree = parser.parse();
  if (text.size() > DORN_TAG_SEARCH_MAX_TEXT) tree.reset();
  if (!tree && error_offset) *error_offset = static_cast<int>(parser.position());
  return tree;
}

}  // namespace

bool dorn_var_scan(std::string_view text, bool in_category, dorn_var_kind_e *kind, std::string *val,
                   size_t *size) {
  if (scan_var(text, in_category, kind, val, size) && val->size() <= DORN_TAG_SEARCH_MAX_VAR) return true;
  *size = 0;
  return false;
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_parse(std::string_view text, int *error_offset) {
  return parse(text, error_offset, true);
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_parse_lazy(std::string_view text, int *error_offset) {
  return parse(text, error_offset, false);
}
