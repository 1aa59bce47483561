#include "be/common/accept.h"

#include <array>
#include <cctype>

namespace {

std::array<bool, 256> make_token_chars() {
  std::array<bool, 256> table{};
  for (int c = 0; c < 128; c++) table[static_cast<size_t>(c)] = isalnum(c) != 0;
  for (const char c : std::string_view("!#$%&'*+-.^_`|~")) table[static_cast<unsigned char>(c)] = true;
  return table;
}

const std::array<bool, 256> &token_chars() {
  static const std::array<bool, 256> table = make_token_chars();
  return table;
}

class scanner_c {
 public:
  explicit scanner_c(std::string_view text) : m_text(text) {}

  void skip_blanks() {
    while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t')) m_at++;
  }
  bool take(char c) {
    if (m_at >= m_text.size() || m_text[m_at] != c) return false;
    m_at++;
    return true;
  }
  bool at_end() const { return m_at >= m_text.size() || m_text[m_at] == ','; }
  // A token in lower case; empty when there is none.
  std::string token() {
    std::string text;
    while (m_at < m_text.size() && token_chars()[static_cast<unsigned char>(m_text[m_at])])
      text += static_cast<char>(tolower(static_cast<unsigned char>(m_text[m_at++])));
    return text;
  }
  bool quoted_string() {
    for (m_at++; m_at < m_text.size(); m_at++) {
      if (m_text[m_at] == '\\') {
        if (++m_at >= m_text.size()) return false;
      } else if (m_text[m_at] == '"') {
        m_at++;
        return true;
      }
    }
    return false;
  }
  bool value() { return m_at < m_text.size() && m_text[m_at] == '"' ? quoted_string() : !token().empty(); }
  // "0", "0.5", "0.123", "1.000" in thousandths; false otherwise, also above 1.
  bool quality(int *q) {
    const std::string text = token();
    if (text.empty() || text.size() > 5 || (text[0] != '0' && text[0] != '1')) return false;
    if (text.size() > 1 && text[1] != '.') return false;
    int thousandths = (text[0] - '0') * 1000;
    for (size_t i = 2, scale = 100; i < text.size(); i++, scale /= 10) {
      if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
      thousandths += (text[i] - '0') * static_cast<int>(scale);
    }
    *q = thousandths;
    return thousandths <= 1000;
  }
  // Moves behind the comma that ends this entry; quoted commas do not count.
  std::string_view rest() {
    while (m_at < m_text.size() && m_text[m_at] != ',') {
      if (m_text[m_at] != '"')
        m_at++;
      else if (!quoted_string())
        m_at = m_text.size();
    }
    return m_text.substr(m_at < m_text.size() ? m_at + 1 : m_text.size());
  }

 private:
  std::string_view m_text;
  size_t m_at = 0;
};

std::optional<velmar_be_media_range_t> read_range(scanner_c *in) {
  velmar_be_media_range_t range;
  in->skip_blanks();
  const std::string type = in->token();
  if (type.empty() || !in->take('/')) return {};
  const std::string subtype = in->token();
  if (subtype.empty()) return {};
  range.type = type + "/" + subtype;
  for (in->skip_blanks(); in->take(';'); in->skip_blanks()) {
    in->skip_blanks();
    const std::string name = in->token();
    if (name.empty()) return {};
    if (!in->take('=')) continue;
    if (name == "q" ? !in->quality(&range.q) : !in->value()) return {};
  }
  if (!in->at_end()) return {};
  return range;
}

}  // namespace

void velmar_be_common_initialize_token_chars() {
  token_chars();
}

void velmar_be_common_init_accept_types(velmar_be_accept_types_t *table, const std::vector<std::string> &list) {
  for (const std::string &type : list) {
    if (table->types.empty()) table->types.emplace("*", type);
    table->types.emplace(type, type);
    table->types.emplace(type.substr(0, type.find('/')) + "/*", type);
  }
}

std::optional<velmar_be_media_range_t> velmar_be_common_next_accept_type(std::string_view *rest) {
  scanner_c scanner(*rest);
  auto range = read_range(&scanner);
  *rest = scanner.rest();
  return range;
}

std::optional<std::string> velmar_be_common_find_accept_type(const velmar_be_accept_types_t &types,
                                                             std::string_view header) {
  std::optional<std::string> best;
  int best_q = 0;
  while (!header.empty()) {
    const auto range = velmar_be_common_next_accept_type(&header);
    if (!range || range->q <= best_q) continue;
    const auto it = types.types.find(range->type == "*/*" ? "*" : range->type);
    if (it == types.types.end()) continue;
    best = it->second;
    best_q = range->q;
  }
  return best;
}
