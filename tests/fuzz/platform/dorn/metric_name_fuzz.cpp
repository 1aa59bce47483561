// Canonicalising: stays inside its buffer, is idempotent, does not depend on the buffer, and its tags parse
// again.

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/dorn/dorn_tagset.h"

static void require(bool condition) {
  if (!condition) abort();
}

static ssize_t canonicalize(const std::string &in, std::string *out) {
  out->resize(DORN_METRIC_NAME_BUFFER);
  const ssize_t len =
      dorn_metric_canonicalize_ex(in.data(), in.size(), out->data(), out->size(), true, true, false);
  out->resize(len > 0 && static_cast<size_t>(len) < out->size() ? static_cast<size_t>(len) : 0);
  return len;
}

static void check_tags(const std::string &name) {
  dorn_name_parts_t parts;
  require(dorn_metric_name_split(name.data(), name.size(), &parts) == 0);
  dorn_metric_tagset_t view, copy;
  const char *tags = name.data() + parts.tags_offset;
  require(dorn_metric_tagset_init_with_context(&view, nullptr, tags, parts.tags_len, dorn_tagset_text_e::view));
  require(dorn_metric_tagset_init_with_context(&copy, nullptr, tags, parts.tags_len, dorn_tagset_text_e::copy));
  require(view.text_size == copy.text_size && view.count == copy.count);
  dorn_metric_tagset_builder_t builder;
  dorn_metric_tagset_builder_start(&builder);
  for (const dorn_metric_tag_t &tag : view) {
    char decoded[DORN_TAG_MAX_PAIR_LEN];
    size_t category = 0;
    const ssize_t len =
        dorn_metric_tagset_decode_tag(tag.tag, tag.total_size, decoded, sizeof decoded, &category);
    require(len > 0 && category > 0 && decoded[category] == ':');
    const std::string_view bytes{decoded, static_cast<size_t>(len)};
    require(
        dorn_metric_tagset_builder_add_one(&builder, bytes.substr(0, category), bytes.substr(category + 1)));
    require(dorn_metric_tagset_is_taggable_key(tag.tag, tag.category_size - size_t{1}));
    require(dorn_metric_tagset_is_taggable_value(tag.value().data(), tag.value().size()));
  }
  dorn_metric_tagset_t built;
  require(dorn_metric_tagset_builder_end(&builder, &built));
  require(built.text_size == view.text_size && built.count == view.count);
  require(view.count == 0 || memcmp(built.text, view.text, view.text_size) == 0);
  dorn_metric_tagset_cleanup(&copy);
  dorn_metric_tagset_cleanup(&built);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string name(reinterpret_cast<const char *>(data), size);
  std::string first, second;
  const ssize_t len = canonicalize(name, &first);
  std::string small(len > 0 ? static_cast<size_t>(len) / 2 : 0, '\0');  // the sanitizer guards its end
  const ssize_t small_len =
      dorn_metric_canonicalize_ex(name.data(), name.size(), small.data(), small.size(), true, true, false);
  require(len < 0 || len >= static_cast<ssize_t>(DORN_METRIC_NAME_BUFFER) ? (small_len < 0) == (len < 0)
                                                                          : small_len == len);
  if (len < 0 || len >= static_cast<ssize_t>(DORN_METRIC_NAME_BUFFER)) return 0;
  require(dorn_metric_name_is_clean(first.data(), first.size()));
  require(canonicalize(first, &second) == len && first == second);
  check_tags(first);
  return 0;
}
