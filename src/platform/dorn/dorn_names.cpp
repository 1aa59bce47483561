#include "platform/dorn/dorn_names.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_tag_list.h"

using namespace std::string_view_literals;

namespace {

ssize_t does_not_fit(size_t length, size_t out_size) {
  return static_cast<ssize_t>(std::max(length, out_size));
}

char *put(char *out, std::string_view text) {
  if (!text.empty()) memcpy(out, text.data(), text.size());
  return out + text.size();
}

// Of a whole name or tag list that is to be written letter by letter.
ssize_t copy_whole(std::string_view text, char *out, size_t out_size, bool terminate) {
  if (text.size() < out_size) {
    char *end = put(out, text);
    if (terminate) *end = '\0';
  }
  return static_cast<ssize_t>(text.size());
}

}  // namespace

int dorn_metric_name_split(const char *name, size_t name_len, dorn_name_parts_t *parts) {
  const std::string_view text{name, name_len};
  *parts = {name_len, false, name_len, 0};
  size_t end = name_len;
  for (;;) {
    const void *found = end > 0 ? memrchr(name, '|', end) : nullptr;
    if (!found) return 0;  // then the base holds no "|ST[" either
    const auto bar = static_cast<size_t>(static_cast<const char *>(found) - name);
    const std::string_view block = text.substr(bar + 1, end - bar - 1);
    if (block.starts_with("ST["sv) && block.back() == ']') {
      if (parts->has_tags) return DORN_NAME_BAD_BLOCK;
      parts->has_tags = true;
      parts->tags_offset = bar + 4;
      parts->tags_len = block.size() - 4;
    } else if (!block.starts_with("MT{"sv) || block.back() != '}') {
      break;
    }
    end = bar;
    parts->base_len = end;
  }
  return text.substr(0, end).find("|ST["sv) == std::string_view::npos ? 0 : DORN_NAME_BAD_BLOCK;
}

bool dorn_metric_name_is_clean(const char *name, size_t name_len) {
  return name_len <= DORN_METRIC_NAME_MAX && dorn_is_clean_utf8({name, name_len});
}

ssize_t dorn_metric_tags_canonical(const char *tags, size_t tags_len, char *out, size_t out_size,
                                   bool terminate) {
  const std::string_view text{tags, tags_len};
  if (tags_len > DORN_TAG_LIST_MAX_TEXT) return does_not_fit(tags_len, out_size);
  if (!dorn_is_clean_utf8(text)) return DORN_NAME_UNCLEAN;
  dorn_tag_list_c list;
  const int error = list.parse(text);
  if (error == dorn_tag_list_c::too_long) return does_not_fit(tags_len, out_size);
  if (error) return error;
  if (list.is_canonical()) return copy_whole(text, out, out_size, terminate);
  if (list.canonical_size() < out_size) {
    list.write(out);
    if (terminate) out[list.canonical_size()] = '\0';
  }
  return static_cast<ssize_t>(list.canonical_size());
}

ssize_t dorn_metric_canonicalize_ex(const char *in, size_t in_len, char *out, size_t out_size, bool terminate,
                                    bool with_measurements, bool without_tags) {
  const std::string_view name{in, in_len};
  if (in_len > DORN_TAG_LIST_MAX_TEXT) return does_not_fit(in_len, out_size);
  if (!dorn_is_clean_utf8(name)) return DORN_NAME_UNCLEAN;

  dorn_name_parts_t parts;
  int error = dorn_metric_name_split(in, in_len, &parts);
  if (error) return error;
  if (parts.base_len == in_len) return copy_whole(name, out, out_size, terminate);

  dorn_tag_list_c list;
  error = list.parse(name.substr(parts.tags_offset, parts.tags_len));
  if (error == dorn_tag_list_c::too_long) return does_not_fit(in_len, out_size);
  if (error) return error;

  // Measurement blocks stand before and behind the stream tags.
  std::string_view before, behind = name.substr(parts.base_len);
  if (parts.has_tags) {
    before = name.substr(parts.base_len, parts.tags_offset - 4 - parts.base_len);
    behind = name.substr(parts.tags_offset + parts.tags_len + 1);
  }
  const bool with_tags = list.count() > 0 && !without_tags;
  if (with_tags && list.is_canonical() && before.empty() && (with_measurements || behind.empty())) {
    return copy_whole(name, out, out_size, terminate);
  }
  if (!with_measurements) before = behind = {};
  const size_t length =
      parts.base_len + (with_tags ? list.canonical_size() + 5 : 0) + before.size() + behind.size();
  if (length >= out_size) return static_cast<ssize_t>(length);
  char *at = put(out, name.substr(0, parts.base_len));
  if (with_tags) {
    at = put(at, "|ST["sv);
    list.write(at);
    at = put(at + list.canonical_size(), "]"sv);
  }
  at = put(put(at, before), behind);
  if (terminate) *at = '\0';
  return static_cast<ssize_t>(length);
}
