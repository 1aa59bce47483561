// Texts from anywhere, made fit for the outputs.

#include <fmt/format.h>

#include <iterator>

#include "platform/tolvmetrics/stats_tree.h"

namespace {

// The length of the UTF-8 character at the front, 0 when it is none.
size_t character_length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i)
    if ((byte(i) & 0xc0) != 0x80) return 0;
  // Overlong forms, surrogates, beyond the last character.
  if ((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
      (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f))
    return 0;
  return length;
}

}  // namespace

void stats_append_clean(std::string *out, std::string_view text,
                        const std::function<void(std::string *, char)> &escape) {
  while (!text.empty()) {
    const size_t length = character_length(text);
    if (length == 1) {
      escape(out, text[0]);
    } else if (length == 0) {
      *out += "\xef\xbf\xbd";
    } else {
      out->append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
}

void stats_append_json_string(std::string *out, std::string_view text) {
  *out += '"';
  stats_append_clean(out, text, [](std::string *to, char c) {
    if (c == '"' || c == '\\') *to += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      fmt::format_to(std::back_inserter(*to), "\\u{:04x}", static_cast<unsigned>(c));
    } else {
      *to += c;
    }
  });
  *out += '"';
}

std::string stats_join(const std::vector<std::string> &path, char separator) {
  std::string result;
  for (const std::string &name : path) {
    if (!result.empty()) result += separator;
    result += name;
  }
  return result;
}
