#pragma once
// What a variable is made of. For this library only.

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/dorn/dorn_regex.h"
#include "platform/dorn/dorn_tag_text.h"
#include "platform/dorn/dorn_var.h"

enum class dorn_var_kind_e : uint8_t { exact, glob, regex };

struct dorn_var_t {
  std::string m_val;
  std::string m_encoded;  // of an exact variable whose bytes stand encoded in a tag; else empty
  dorn_var_kind_e m_kind = dorn_var_kind_e::exact;
  bool m_matches_all = false;
  mutable std::atomic<const dorn_regex_t *> m_regex{nullptr};  // set once, by whoever needs it first

  dorn_var_t() = default;
  dorn_var_t(const dorn_var_t &) = delete;
  dorn_var_t &operator=(const dorn_var_t &) = delete;
  ~dorn_var_t();

  void init(dorn_var_kind_e kind, std::string_view val, dorn_tag_part_e part);
  // Shares a pattern that is compiled already.
  void init_copy(const dorn_var_t &other);
  // Compiles a pattern now; false when it is malformed.
  bool compile() const;
  bool match(std::string_view bytes) const;
  // Against the encoded text of a tag's part of the kind that init was told.
  bool match_encoded(std::string_view text) const;
};

// Text in which the variable is read back, appended.
void dorn_var_unparse(const dorn_var_t &var, bool in_category, std::string *out);
// "plain" or b"..." text of bytes that are to be read back literally, appended. in_category: ":" ends it.
void dorn_var_unparse_bytes(std::string_view bytes, bool in_category, std::string *out);

bool dorn_glob_match(std::string_view glob, std::string_view text);
