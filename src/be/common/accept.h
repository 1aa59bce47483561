#pragma once
// Which of the types that a handler can give an Accept header likes best (RFC 7231, 5.3.2).

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// The types a handler knows, by full text, by "type/*", and the first one under "*".
struct velmar_be_accept_types_t {
  std::unordered_map<std::string, std::string> types;
};

// Builds the table of token characters; call once at start. Safe to call again.
void velmar_be_common_initialize_token_chars();
void velmar_be_common_init_accept_types(velmar_be_accept_types_t *table, const std::vector<std::string> &list);

struct velmar_be_media_range_t {
  std::string type;  // lower case: "type/subtype", "type/*" or "*/*"
  int q = 1000;      // thousandths
};
// Takes one media range off the front of *rest. None: the entry is invalid (it is taken off all the same)
// or nothing is left, which *rest being empty tells.
std::optional<velmar_be_media_range_t> velmar_be_common_next_accept_type(std::string_view *rest);

// The known type with the highest q; of equals the first. None when nothing fits or q is 0.
std::optional<std::string> velmar_be_common_find_accept_type(const velmar_be_accept_types_t &types,
                                                             std::string_view header);
