#pragma once
// A set of tags as one canonical text "category:value,category:value". The set is 16 bytes, made to be
// embedded; it owns its text, or looks into a text that someone else keeps (a metric's key). A set is
// read from any number of threads; it must not change meanwhile.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dorn/dorn_names.h"

// One tag, a view into the set's text. Sizes are of the encoded text.
struct dorn_metric_tag_t {
  const char *tag;        // "category:value", not terminated
  uint16_t total_size;    // category, ":" and value
  uint8_t category_size;  // with the ":"

  std::string_view text() const { return {tag, total_size}; }
  std::string_view category() const { return {tag, category_size - size_t{1}}; }
  std::string_view value() const { return {tag + category_size, size_t{total_size} - category_size}; }
};

struct dorn_metric_tagset_t {
  const char *text;    // canonical, not terminated
  uint32_t text_size;  // the canonical size of the set
  uint16_t count;
  bool owns_text;

  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = dorn_metric_tag_t;
    using difference_type = ptrdiff_t;
    using pointer = const dorn_metric_tag_t *;
    using reference = const dorn_metric_tag_t &;

    iterator() = default;
    iterator(const char *at, const char *end) : m_at(at), m_end(end) { scan(); }
    reference operator*() const { return m_tag; }
    pointer operator->() const { return &m_tag; }
    iterator &operator++() {
      m_at += m_tag.total_size;
      if (m_at != m_end) ++m_at;  // the comma
      scan();
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const iterator &other) const { return m_at == other.m_at; }

   private:
    void scan() {
      if (m_at == m_end) return;
      const size_t left = static_cast<size_t>(m_end - m_at);
      const auto *comma = static_cast<const char *>(memchr(m_at, ',', left));
      const auto *colon = static_cast<const char *>(memchr(m_at, ':', left));
      m_tag = {m_at, static_cast<uint16_t>(comma ? comma - m_at : static_cast<ptrdiff_t>(left)),
               static_cast<uint8_t>(colon + 1 - m_at)};
    }
    const char *m_at = nullptr;
    const char *m_end = nullptr;
    dorn_metric_tag_t m_tag{};
  };
  iterator begin() const { return {text, text + text_size}; }
  iterator end() const { return {text + text_size, text + text_size}; }
};

// What a parse asks about each tag: category_size counts the ":"; false refuses the whole text.
struct dorn_metric_tagset_context_t;
using dorn_metric_tagset_validate_fn = bool (*)(const char *tag, size_t total_size, size_t category_size);
dorn_metric_tagset_context_t *dorn_metric_tagset_context_alloc();
void dorn_metric_tagset_context_free(dorn_metric_tagset_context_t *context);
void dorn_metric_tagset_context_set_validate_function(dorn_metric_tagset_context_t *context,
                                                      dorn_metric_tagset_validate_fn function);

enum class dorn_tagset_text_e {
  copy,  // the set keeps a canonical copy, in one allocation; any valid text will do
  view,  // the set looks into the text, which must be canonical and outlive it; no allocation
};

// An empty set: valid, nothing to clean up.
void dorn_metric_tagset_init(dorn_metric_tagset_t *set);
// From the text between "ST[" and "]", with context null for no validation. On false the set is empty:
// a tag was malformed or refused, the text is over DORN_METRIC_NAME_MAX, or a viewed text not canonical.
bool dorn_metric_tagset_init_with_context(dorn_metric_tagset_t *set,
                                          const dorn_metric_tagset_context_t *context, const char *tags,
                                          size_t tags_len, dorn_tagset_text_e mode);
// Frees what the set owns and leaves it empty.
void dorn_metric_tagset_cleanup(dorn_metric_tagset_t *set);

// Bytes of the canonical text, without "ST[" and "]".
inline size_t dorn_metric_tagset_canonical_size(const dorn_metric_tagset_t *set) {
  return set->text_size;
}

// Decodes "category:value" to plain bytes, a ":" between them: *category_len is where it stands. Gives the
// length written (never above tag_len), or -1: no ":", no room, or a broken b"..." form. No terminator.
ssize_t dorn_metric_tagset_decode_tag(const char *tag, size_t tag_len, char *out, size_t out_size,
                                      size_t *category_len);

// May stand as a category or a value in a tag, plain or in a b"..." form.
bool dorn_metric_tagset_is_taggable_key(const char *text, size_t len);
bool dorn_metric_tagset_is_taggable_value(const char *text, size_t len);

// Makes a set from bytes. add_one encodes what needs it; false, also from end: a category that is empty, or a
// tag over the maxima; the tag is then left out. end sorts, drops doubles and gives a set that owns its text.
struct dorn_metric_tagset_builder_t {
  std::string m_text;
  std::vector<std::pair<uint32_t, uint32_t>> m_tags;  // offset and length in m_text
  bool m_refused = false;
};
void dorn_metric_tagset_builder_start(dorn_metric_tagset_builder_t *builder);
bool dorn_metric_tagset_builder_add_one(dorn_metric_tagset_builder_t *builder, std::string_view category,
                                        std::string_view value);
bool dorn_metric_tagset_builder_end(dorn_metric_tagset_builder_t *builder, dorn_metric_tagset_t *set);
