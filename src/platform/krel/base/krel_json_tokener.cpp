// The parser.

#include <json-c/json_object.h>
#include <json-c/json_tokener.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "platform/krel/base/krel_json.h"
#include "platform/krel/base/krel_json_guard.h"

namespace {

struct json_tokener_deleter_t {
  void operator()(json_tokener *tokener) const { json_tokener_free(tokener); }
};

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// How many bytes of a character the text ends with that has not all its bytes yet.
size_t split_character(const char *text, size_t length) {
  for (size_t back = 1; back <= std::min<size_t>(3, length); ++back) {
    const auto byte = static_cast<unsigned char>(text[length - back]);
    if (byte < 0x80) return 0;
    if (byte < 0xc0) continue;
    const size_t whole = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : 2;
    return whole > back ? back : 0;
  }
  return 0;
}

}  // namespace

// The library checks UTF-8 within a piece only, so a character cut by the end of a piece waits here.
struct krel_json_tokener {
  std::unique_ptr<json_tokener, json_tokener_deleter_t> m_json;
  krel_json_guard_c m_guard;
  char m_split[4];
  size_t m_split_size = 0;
  const char *m_error = "";

  krel_json_status_e fail(const char *error) {
    m_error = error;
    return krel_json_error;
  }
  krel_json_status_e feed(const char *text, int length, krel_json_object **object);
  krel_json_status_e pieces(const char *text, size_t length, krel_json_object **object);
  size_t complete_split(const char *text, size_t length);
};

krel_json_status_e krel_json_tokener::feed(const char *text, int length, krel_json_object **object) {
  krel_json_ptr value(json_tokener_parse_ex(m_json.get(), text, length));
  const json_tokener_error error = json_tokener_get_error(m_json.get());
  if (error == json_tokener_continue) return krel_json_continue;
  if (error != json_tokener_success) return fail(json_tokener_error_desc(error));
  if (length > 0) {
    // A zero byte ends the library's view of the text, not ours.
    const size_t end = json_tokener_get_parse_end(m_json.get());
    if (!std::all_of(text + end, text + length, is_blank)) return fail("more text behind the value");
  }
  *object = value.release();
  return krel_json_done;
}

krel_json_status_e krel_json_tokener::pieces(const char *text, size_t length, krel_json_object **object) {
  while (length > 0) {
    const size_t piece = std::min<size_t>(length, 1u << 30);
    // Only the end of the whole text may cut a character, and there the bytes were taken off.
    const size_t cut = piece < length ? split_character(text, piece) : 0;
    const krel_json_status_e status = feed(text, static_cast<int>(piece - cut), object);
    text += piece - cut;
    length -= piece - cut;
    if (status == krel_json_error) return status;
    if (status == krel_json_done) {
      if (std::all_of(text, text + length, is_blank)) return status;
      krel_json_object_put(*object);
      *object = nullptr;
      return fail("more text behind the value");
    }
  }
  return krel_json_continue;
}

// Adds bytes to the waiting character until it is whole; returns how many it took.
size_t krel_json_tokener::complete_split(const char *text, size_t length) {
  size_t taken = 0;
  while (taken < length && split_character(m_split, m_split_size) == m_split_size)
    m_split[m_split_size++] = text[taken++];
  return taken;
}

krel_json_tokener *krel_json_tokener_new() {
  auto tokener = std::make_unique<krel_json_tokener>();
  tokener->m_json.reset(json_tokener_new_ex(KREL_JSON_MAX_DEPTH));
  json_tokener_set_flags(tokener->m_json.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
  return tokener.release();
}

void krel_json_tokener_free(krel_json_tokener *tokener) {
  std::unique_ptr<krel_json_tokener>{tokener};
}

void krel_json_tokener_reset(krel_json_tokener *tokener) {
  json_tokener_reset(tokener->m_json.get());
  tokener->m_guard = {};
  tokener->m_split_size = 0;
  tokener->m_error = "";
}

krel_json_status_e krel_json_tokener_parse_ex(krel_json_tokener *tokener, const char *text, size_t length,
                                              krel_json_object **object) {
  *object = nullptr;
  tokener->m_error = "";
  if (length == 0) {
    if (tokener->m_split_size != 0) return tokener->fail("the text ends within a character");
    if (const char *wrong = tokener->m_guard.end()) return tokener->fail(wrong);
    return tokener->feed("", -1, object);
  }
  if (const char *wrong = tokener->m_guard.look(text, length)) return tokener->fail(wrong);
  if (tokener->m_split_size != 0) {
    const size_t taken = tokener->complete_split(text, length);
    text += taken;
    length -= taken;
    if (split_character(tokener->m_split, tokener->m_split_size) == tokener->m_split_size)
      return krel_json_continue;
    const size_t size = tokener->m_split_size;
    tokener->m_split_size = 0;
    // A character of several bytes stands inside a string, so no value ends with it.
    const krel_json_status_e status = tokener->feed(tokener->m_split, static_cast<int>(size), object);
    if (status != krel_json_continue) return status;
  }
  const size_t cut = split_character(text, length);
  const krel_json_status_e status = tokener->pieces(text, length - cut, object);
  if (cut == 0 || status == krel_json_error) return status;
  if (status == krel_json_done) {
    krel_json_object_put(*object);
    *object = nullptr;
    return tokener->fail("more text behind the value");
  }
  memcpy(tokener->m_split, text + length - cut, cut);
  tokener->m_split_size = cut;
  return krel_json_continue;
}

const char *krel_json_tokener_error(const krel_json_tokener *tokener) {
  return tokener->m_error;
}

krel_json_object *krel_json_tokener_parse(std::string_view text) {
  struct deleter_t {
    void operator()(krel_json_tokener *tokener) const { krel_json_tokener_free(tokener); }
  };
  const std::unique_ptr<krel_json_tokener, deleter_t> tokener(krel_json_tokener_new());
  krel_json_object *object = nullptr;
  krel_json_status_e status = krel_json_continue;
  if (!text.empty()) status = krel_json_tokener_parse_ex(tokener.get(), text.data(), text.size(), &object);
  if (status == krel_json_continue) status = krel_json_tokener_parse_ex(tokener.get(), nullptr, 0, &object);
  return status == krel_json_done ? object : nullptr;
}
