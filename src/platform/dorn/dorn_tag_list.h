#pragma once
// Work area that brings the text between "ST[" and "]" into canonical order. For this library only.

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr size_t DORN_TAG_LIST_MAX_TEXT = 8191;

// 20 KB, meant for the stack; nothing is allocated and nothing but what is used is touched.
class dorn_tag_list_c {
 public:
  dorn_tag_list_c() {}  // NOLINT: the arrays stay uninitialised on purpose
  dorn_tag_list_c(const dorn_tag_list_c &) = delete;
  dorn_tag_list_c &operator=(const dorn_tag_list_c &) = delete;

  static constexpr int too_long = 1;

  // 0, too_long (the list needs more room than any name has), or a dorn_name_error_e. The text must stay.
  int parse(std::string_view text);
  // The parsed text was canonical letter by letter.
  bool is_canonical() const { return m_is_canonical; }

  size_t count() const { return m_count; }
  size_t canonical_size() const { return m_size; }
  // Writes canonical_size() bytes.
  void write(char *out) const;

 private:
  // A tag in the text, or in the scratch area when it had to be rewritten.
  struct ref_t {
    uint16_t offset;
    uint16_t size;
  };
  static constexpr uint16_t in_scratch = 0x8000;
  static constexpr size_t max_refs = (DORN_TAG_LIST_MAX_TEXT + 1) / 3 + 1;

  std::string_view view(ref_t ref) const {
    const char *base = ref.offset & in_scratch ? m_scratch : m_text.data();
    return {base + (ref.offset & ~in_scratch), ref.size};
  }
  int add_rewritten(size_t begin, size_t end);
  int rewrite_part(std::string_view text, bool is_category);
  int add(ref_t ref);
  void sort_and_drop_doubles();

  std::string_view m_text;
  size_t m_count = 0;
  size_t m_size = 0;
  size_t m_scratch_used = 0;
  bool m_is_canonical = true;
  bool m_is_sorted = true;
  ref_t m_refs[max_refs];
  char m_scratch[DORN_TAG_LIST_MAX_TEXT + 1];
};
