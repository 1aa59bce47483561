#include "platform/krel/base/krel_conf_env.h"

#include <fmt/format.h>

#include <cctype>
#include <cstdlib>

namespace {

constexpr size_t k_longest_value = 1 << 20;

// The length of the name at the front; 0 when there is none.
size_t name_length(std::string_view text) {
  if (text.empty() || std::isdigit(static_cast<unsigned char>(text[0]))) return 0;
  size_t n = 0;
  while (n < text.size() && (std::isalnum(static_cast<unsigned char>(text[n])) || text[n] == '_')) n++;
  return n;
}

}  // namespace

bool krel_conf_expand_env(std::string_view text, std::string *out, std::string *error) {
  out->clear();
  while (!text.empty()) {
    size_t at = text.find("${");
    out->append(text.substr(0, at));
    if (at == std::string_view::npos) break;
    text.remove_prefix(at);
    std::string_view body = text.substr(2);
    size_t length = name_length(body), end = body.find('}');
    bool plain = length > 0 && end == length;
    bool with_default = length > 0 && end != std::string_view::npos && body.substr(length).starts_with(":-");
    if (!plain && !with_default) {
      out->append("${");
      text.remove_prefix(2);
      continue;
    }
    std::string name(body.substr(0, length));
    const char *value = std::getenv(name.c_str());
    if (value != nullptr && (plain || *value != '\0')) {
      out->append(value);
    } else if (with_default) {
      out->append(body.substr(length + 2, end - length - 2));
    } else {
      *error =
          fmt::format("the environment variable {} is not set; set it or write ${{{}:-default}}", name, name);
      return false;
    }
    if (out->size() > k_longest_value) {
      *error = "the value grows too long with its environment variables";
      return false;
    }
    text.remove_prefix(2 + end + 1);
  }
  return true;
}
