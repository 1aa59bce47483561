#include "platform/dorn/dorn_var.h"

#include <algorithm>
#include <cstring>

#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_names.h"
#include "platform/dorn/dorn_var_impl.h"

dorn_var_t::~dorn_var_t() {
  if (const dorn_regex_t *regex = m_regex.load(std::memory_order_acquire)) dorn_regex_deref(regex);
}

void dorn_var_t::init(dorn_var_kind_e kind, std::string_view val, dorn_tag_part_e part) {
  m_kind = kind;
  m_val = val;
  if (kind == dorn_var_kind_e::glob) {
    m_matches_all = !val.empty() && val.find_first_not_of('*') == std::string_view::npos;
  } else if (kind == dorn_var_kind_e::regex) {
    m_matches_all = val.empty() || val == ".*" || val == "^.*" || val == "^.*$";
  } else if (!dorn_tag_part_is_plain(val, part)) {
    m_encoded.resize(dorn_tag_part_b64_len(val.size()));
    dorn_tag_part_encode(val, part, m_encoded.data(), m_encoded.size());
  }
}

void dorn_var_t::init_copy(const dorn_var_t &other) {
  m_val = other.m_val;
  m_encoded = other.m_encoded;
  m_kind = other.m_kind;
  m_matches_all = other.m_matches_all;
  if (const dorn_regex_t *regex = other.m_regex.load(std::memory_order_acquire)) {
    dorn_regex_ref(regex);
    m_regex.store(regex, std::memory_order_release);
  }
}

bool dorn_var_t::compile() const {
  if (m_kind != dorn_var_kind_e::regex) return true;
  const dorn_regex_t *regex = m_regex.load(std::memory_order_acquire);
  if (!regex) {
    const dorn_regex_t *made = dorn_regex_compile(m_val);
    if (m_regex.compare_exchange_strong(regex, made, std::memory_order_acq_rel)) {
      regex = made;
    } else {
      dorn_regex_deref(made);  // another thread was first
    }
  }
  return dorn_regex_is_valid(regex);
}

bool dorn_var_t::match(std::string_view bytes) const {
  if (m_matches_all) return true;
  switch (m_kind) {
    case dorn_var_kind_e::exact:
      return bytes == m_val;
    case dorn_var_kind_e::glob:
      return dorn_glob_match(m_val, bytes);
    case dorn_var_kind_e::regex:
      return compile() && dorn_regex_match(m_regex.load(std::memory_order_acquire), bytes);
  }
  return false;
}

bool dorn_var_t::match_encoded(std::string_view text) const {
  if (m_matches_all) return true;
  if (m_kind == dorn_var_kind_e::exact) return text == (m_encoded.empty() ? m_val : m_encoded);
  if (!dorn_tag_part_is_encoded(text)) return match(text);
  char decoded[DORN_TAG_MAX_PAIR_LEN];
  const ssize_t len = dorn_tag_part_decode(text, decoded, sizeof decoded);
  return len >= 0 && match({decoded, static_cast<size_t>(len)});
}

// Goes back to the last "*" only: at most glob.size() * text.size() steps.
bool dorn_glob_match(std::string_view glob, std::string_view text) {
  const auto character = [&](size_t at) { return std::max<size_t>(dorn_utf8_len(text, at), 1); };
  size_t g = 0, t = 0;
  size_t after_star = std::string_view::npos, retry = 0;
  while (t < text.size()) {
    if (g < glob.size() && glob[g] == '*') {
      while (g < glob.size() && glob[g] == '*') g++;
      if (g == glob.size()) return true;
      after_star = g;
      retry = t;
      continue;
    }
    if (g < glob.size() && glob[g] == '?') {
      t += character(t);
      g++;
      continue;
    }
    if (g < glob.size() && glob[g] == text[t]) {
      t++;
      g++;
      continue;
    }
    if (after_star == std::string_view::npos) return false;
    g = after_star;
    retry += character(retry);
    if (glob[g] != '?' && retry < text.size()) {
      const void *next = memchr(text.data() + retry, glob[g], text.size() - retry);
      if (!next) return false;
      retry = static_cast<size_t>(static_cast<const char *>(next) - text.data());
    }
    t = retry;
  }
  while (g < glob.size() && glob[g] == '*') g++;
  return g == glob.size();
}

std::string_view dorn_var_val(const dorn_var_t *var) {
  return var->m_val;
}

const char *dorn_var_impl_name(const dorn_var_t *var) {
  switch (var->m_kind) {
    case dorn_var_kind_e::exact:
      return "exact";
    case dorn_var_kind_e::glob:
      return "glob";
    case dorn_var_kind_e::regex:
      return "pcre";
  }
  return "";
}

bool dorn_var_match(const dorn_var_t *var, const char *bytes, size_t len) {
  return var->match({bytes, len});
}

// Letters behind "^", as long as nothing can make them optional.
static std::string_view fixed_prefix_of_pattern(std::string_view pattern) {
  if (!pattern.starts_with('^') || pattern.find('|') != std::string_view::npos) return {};
  const std::string_view rest = pattern.substr(1);
  size_t len = 0;
  const auto is_letter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr("_-/:=,;@%&~'\"` ", c);
  };
  while (len < rest.size() && rest[len] != '\0' && is_letter(rest[len])) len++;
  if (len > 0 && len < rest.size() && strchr("*?{", rest[len])) len--;
  return rest.substr(0, len);
}

size_t dorn_var_strlcat_fixed_prefix(const dorn_var_t *var, char *out, size_t used, size_t out_size,
                                     bool *complete) {
  std::string_view prefix = var->m_val;
  *complete = var->m_kind == dorn_var_kind_e::exact;
  if (var->m_kind == dorn_var_kind_e::glob) prefix = prefix.substr(0, prefix.find_first_of("*?"));
  if (var->m_kind == dorn_var_kind_e::regex) prefix = fixed_prefix_of_pattern(prefix);
  if (used + 1 > out_size) return used;
  const size_t len = std::min(prefix.size(), out_size - 1 - used);
  if (len < prefix.size()) *complete = false;
  if (len > 0) memcpy(out + used, prefix.data(), len);
  out[used + len] = '\0';
  return used + len;
}
