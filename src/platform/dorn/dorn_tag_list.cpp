#include "platform/dorn/dorn_tag_list.h"

#include <algorithm>
#include <cstring>

#include "platform/dorn/dorn_chars.h"
#include "platform/dorn/dorn_names.h"
#include "platform/dorn/dorn_tag_text.h"

namespace {

// An encoded form longer than this decodes to more than a tag may hold.
constexpr size_t max_encoded_part = dorn_tag_part_b64_len(DORN_TAG_MAX_PAIR_LEN);

std::string_view trim_blanks(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

int dorn_tag_list_c::add(ref_t ref) {
  if (m_count > 0 && m_is_sorted) m_is_sorted = view(m_refs[m_count - 1]) < view(ref);
  m_refs[m_count++] = ref;
  return 0;
}

// Appends the canonical text of one part to the scratch area.
int dorn_tag_list_c::rewrite_part(std::string_view text, bool is_category) {
  const dorn_tag_part_e part = is_category ? dorn_tag_part_e::category : dorn_tag_part_e::value;
  char decoded[max_encoded_part];
  if (dorn_tag_part_is_encoded(text)) {
    if (text.size() > max_encoded_part) return DORN_NAME_TAG_TOO_LONG;
    const ssize_t len = dorn_tag_part_decode(text, decoded, sizeof decoded);
    if (len < 0) return DORN_NAME_BAD_TAG;
    text = {decoded, static_cast<size_t>(len)};
  }
  if (is_category && text.empty()) return DORN_NAME_BAD_TAG;
  if (text.size() > DORN_TAG_MAX_PAIR_LEN) return DORN_NAME_TAG_TOO_LONG;
  const ssize_t len =
      dorn_tag_part_encode(text, part, m_scratch + m_scratch_used, sizeof m_scratch - m_scratch_used);
  if (len < 0) return too_long;
  if (is_category && static_cast<size_t>(len) > DORN_TAG_MAX_CATEGORY_LEN) return DORN_NAME_TAG_TOO_LONG;
  m_scratch_used += static_cast<size_t>(len);
  return 0;
}

// A tag that the quick scan could not take as it stands: blanks, encoded forms, bytes that need encoding.
int dorn_tag_list_c::add_rewritten(size_t begin, size_t end) {
  const std::string_view raw = m_text.substr(begin, end - begin);
  const std::string_view tag = trim_blanks(raw);
  const size_t colon = tag.find(':');
  if (colon == std::string_view::npos) return DORN_NAME_BAD_TAG;
  const size_t start = m_scratch_used;
  int error = rewrite_part(tag.substr(0, colon), true);
  if (error) return error;
  if (m_scratch_used == sizeof m_scratch) return too_long;
  m_scratch[m_scratch_used++] = ':';
  error = rewrite_part(tag.substr(colon + 1), false);
  if (error) return error;
  const std::string_view rewritten{m_scratch + start, m_scratch_used - start};
  if (rewritten.size() > DORN_TAG_MAX_PAIR_LEN) return DORN_NAME_TAG_TOO_LONG;
  if (rewritten == raw) {
    m_scratch_used = start;
    return add({static_cast<uint16_t>(begin), static_cast<uint16_t>(raw.size())});
  }
  m_is_canonical = false;
  return add({static_cast<uint16_t>(start | in_scratch), static_cast<uint16_t>(rewritten.size())});
}

int dorn_tag_list_c::parse(std::string_view text) {
  m_text = text;
  if (text.size() > DORN_TAG_LIST_MAX_TEXT) return too_long;
  if (text.find_first_not_of(' ') == std::string_view::npos) {
    m_is_canonical = text.empty();
    return 0;
  }
  size_t at = 0;
  for (;;) {
    const size_t begin = at;
    while (at < text.size() && dorn_char_is(text[at], DORN_CHAR_CATEGORY)) at++;
    const size_t category_size = at - begin;
    if (at < text.size() && text[at] == ':') {
      while (at < text.size() && dorn_char_is(text[at], DORN_CHAR_VALUE)) at++;
    }
    int error = 0;
    if (category_size > 0 && at > begin + category_size && (at == text.size() || text[at] == ',')) {
      if (category_size > DORN_TAG_MAX_CATEGORY_LEN || at - begin > DORN_TAG_MAX_PAIR_LEN) {
        return DORN_NAME_TAG_TOO_LONG;
      }
      error = add({static_cast<uint16_t>(begin), static_cast<uint16_t>(at - begin)});
    } else {
      at = std::min(text.find(',', at), text.size());
      error = add_rewritten(begin, at);
    }
    if (error) return error;
    if (at == text.size()) break;
    at++;  // the comma
  }
  sort_and_drop_doubles();
  return 0;
}

void dorn_tag_list_c::sort_and_drop_doubles() {
  if (!m_is_sorted) {
    m_is_canonical = false;
    const auto less = [this](ref_t a, ref_t b) { return view(a) < view(b); };
    std::sort(m_refs, m_refs + m_count, less);
    const auto equal = [this](ref_t a, ref_t b) { return view(a) == view(b); };
    m_count = static_cast<size_t>(std::unique(m_refs, m_refs + m_count, equal) - m_refs);
  }
  m_size = m_count - 1;
  for (size_t i = 0; i < m_count; i++) m_size += m_refs[i].size;
}

void dorn_tag_list_c::write(char *out) const {
  for (size_t i = 0; i < m_count; i++) {
    if (i > 0) *out++ = ',';
    const std::string_view tag = view(m_refs[i]);
    memcpy(out, tag.data(), tag.size());
    out += tag.size();
  }
}
