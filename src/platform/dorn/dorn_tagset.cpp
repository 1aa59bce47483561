#include "platform/dorn/dorn_tagset.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>

#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_tag_list.h"
#include "platform/dorn/dorn_tag_text.h"
#include "platform/krel/base/krel_log.h"

struct dorn_metric_tagset_context_t {
  dorn_metric_tagset_validate_fn validate = nullptr;
};

static_assert(sizeof(dorn_metric_tagset_t) == 16 && sizeof(dorn_metric_tag_t) == 16);

namespace {

char *allocate_text(size_t size) {
  char *text = static_cast<char *>(malloc(size));
  if (!text) krel_fatal("out of memory for a tag set of %zu bytes\n", size);
  return text;
}

bool all_valid(const dorn_metric_tagset_t &set, const dorn_metric_tagset_context_t *context) {
  if (!context || !context->validate) return true;
  for (const dorn_metric_tag_t &tag : set) {
    if (!context->validate(tag.tag, tag.total_size, tag.category_size)) return false;
  }
  return true;
}

bool is_taggable(std::string_view text, dorn_tag_part_e part, size_t max_len) {
  if (text.size() > max_len) return false;
  if (!dorn_tag_part_is_encoded(text)) return dorn_tag_part_is_plain(text, part);
  char decoded[DORN_TAG_MAX_PAIR_LEN];
  return dorn_tag_part_decode(text, decoded, sizeof decoded) >= 0;
}

}  // namespace

dorn_metric_tagset_context_t *dorn_metric_tagset_context_alloc() {
  return std::make_unique<dorn_metric_tagset_context_t>().release();
}

void dorn_metric_tagset_context_free(dorn_metric_tagset_context_t *context) {
  std::unique_ptr<dorn_metric_tagset_context_t> owned(context);
}

void dorn_metric_tagset_context_set_validate_function(dorn_metric_tagset_context_t *context,
                                                      dorn_metric_tagset_validate_fn function) {
  context->validate = function;
}

void dorn_metric_tagset_init(dorn_metric_tagset_t *set) {
  *set = {};
}

bool dorn_metric_tagset_init_with_context(dorn_metric_tagset_t *set,
                                          const dorn_metric_tagset_context_t *context, const char *tags,
                                          size_t tags_len, dorn_tagset_text_e mode) {
  dorn_metric_tagset_init(set);
  const std::string_view text{tags, tags_len};
  dorn_tag_list_c list;
  if (tags_len > DORN_TAG_LIST_MAX_TEXT || !dorn_is_clean_utf8(text) || list.parse(text) != 0) return false;
  if (list.canonical_size() > DORN_METRIC_NAME_MAX) return false;
  if (mode == dorn_tagset_text_e::view && !list.is_canonical()) return false;
  if (list.count() == 0) return true;

  set->text_size = static_cast<uint32_t>(list.canonical_size());
  set->count = static_cast<uint16_t>(list.count());
  if (mode == dorn_tagset_text_e::view) {
    set->text = tags;
  } else {
    char *copy = allocate_text(list.canonical_size());
    list.write(copy);
    set->text = copy;
    set->owns_text = true;
  }
  if (all_valid(*set, context)) return true;
  dorn_metric_tagset_cleanup(set);
  return false;
}

void dorn_metric_tagset_cleanup(dorn_metric_tagset_t *set) {
  if (set->owns_text) free(const_cast<char *>(set->text));
  dorn_metric_tagset_init(set);
}

ssize_t dorn_metric_tagset_decode_tag(const char *tag, size_t tag_len, char *out, size_t out_size,
                                      size_t *category_len) {
  const std::string_view text{tag, tag_len};
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return -1;
  const ssize_t category = dorn_tag_part_decode(text.substr(0, colon), out, out_size);
  if (category < 0 || static_cast<size_t>(category) >= out_size) return -1;
  *category_len = static_cast<size_t>(category);
  out[*category_len] = ':';
  const size_t used = *category_len + 1;
  const ssize_t value = dorn_tag_part_decode(text.substr(colon + 1), out + used, out_size - used);
  return value < 0 ? -1 : static_cast<ssize_t>(used) + value;
}

bool dorn_metric_tagset_is_taggable_key(const char *text, size_t len) {
  return len > 0 && is_taggable({text, len}, dorn_tag_part_e::category, DORN_TAG_MAX_CATEGORY_LEN) &&
         std::string_view{text, len} != "b\"\"";
}

bool dorn_metric_tagset_is_taggable_value(const char *text, size_t len) {
  return is_taggable({text, len}, dorn_tag_part_e::value, DORN_TAG_MAX_PAIR_LEN - 2);
}

void dorn_metric_tagset_builder_start(dorn_metric_tagset_builder_t *builder) {
  builder->m_text.clear();
  builder->m_tags.clear();
  builder->m_refused = false;
}

bool dorn_metric_tagset_builder_add_one(dorn_metric_tagset_builder_t *builder, std::string_view category,
                                        std::string_view value) {
  char tag[DORN_TAG_MAX_PAIR_LEN];
  const ssize_t category_len =
      dorn_tag_part_encode(category, dorn_tag_part_e::category, tag, DORN_TAG_MAX_CATEGORY_LEN);
  const bool has_category = category_len > 0;
  const size_t used = has_category ? static_cast<size_t>(category_len) + 1 : 0;
  const ssize_t value_len =
      has_category ? dorn_tag_part_encode(value, dorn_tag_part_e::value, tag + used, sizeof tag - used) : -1;
  if (value_len < 0 || builder->m_tags.size() == std::numeric_limits<uint16_t>::max()) {
    builder->m_refused = true;
    return false;
  }
  tag[used - 1] = ':';
  const size_t size = used + static_cast<size_t>(value_len);
  builder->m_tags.emplace_back(static_cast<uint32_t>(builder->m_text.size()), static_cast<uint32_t>(size));
  builder->m_text.append(tag, size);
  return true;
}

bool dorn_metric_tagset_builder_end(dorn_metric_tagset_builder_t *builder, dorn_metric_tagset_t *set) {
  dorn_metric_tagset_init(set);
  std::vector<std::string_view> tags;
  tags.reserve(builder->m_tags.size());
  for (const auto &[offset, size] : builder->m_tags) tags.emplace_back(builder->m_text.data() + offset, size);
  std::sort(tags.begin(), tags.end());
  tags.erase(std::unique(tags.begin(), tags.end()), tags.end());
  if (!tags.empty()) {
    size_t size = tags.size() - 1;
    for (const std::string_view tag : tags) size += tag.size();
    char *text = allocate_text(size);
    set->text = text;
    set->text_size = static_cast<uint32_t>(size);
    set->count = static_cast<uint16_t>(tags.size());
    set->owns_text = true;
    for (size_t i = 0; i < tags.size(); i++) {
      if (i > 0) *text++ = ',';
      memcpy(text, tags[i].data(), tags[i].size());
      text += tags[i].size();
    }
  }
  const bool complete = !builder->m_refused;
  dorn_metric_tagset_builder_start(builder);
  return complete;
}
