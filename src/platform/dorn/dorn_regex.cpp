#include "platform/dorn/dorn_regex.h"

#include <pcre.h>

#include <atomic>
#include <memory>

#include "platform/dorn/dorn_chars.h"

// A tag value takes well under a thousand steps; a pattern made to stall gives up after some 100 us.
static constexpr unsigned long match_limit = 20000;
static constexpr unsigned long match_limit_recursion = 200;  // of the interpreter, on the C stack
static constexpr int jit_stack_start = 32 * 1024;
static constexpr int jit_stack_max = 256 * 1024;
// Larger patterns are interpreted: translating them costs milliseconds.
static constexpr size_t max_translated_size = 8 * 1024;

struct dorn_regex_t {
  mutable std::atomic<uint32_t> refs{1};
  pcre *code = nullptr;
  pcre_extra *extra = nullptr;
  bool is_utf8 = false;
  bool has_jit = false;

  ~dorn_regex_t() {
    if (extra) pcre_free_study(extra);
    if (code) pcre_free(code);
  }
};

namespace {

struct jit_stack_t {
  pcre_jit_stack *stack = pcre_jit_stack_alloc(jit_stack_start, jit_stack_max);
  ~jit_stack_t() {
    if (stack) pcre_jit_stack_free(stack);
  }
};

// \C matches single bytes of a character and leaves the matcher in its middle.
bool has_single_byte_escape(std::string_view pattern) {
  for (size_t i = 0; i + 1 < pattern.size(); i++) {
    if (pattern[i] != '\\') continue;
    if (pattern[++i] == 'C') return true;
  }
  return false;
}

void set_limits(dorn_regex_t *regex) {
  size_t size = 0;
  pcre_fullinfo(regex->code, nullptr, PCRE_INFO_SIZE, &size);
  const int jit = size <= max_translated_size ? PCRE_STUDY_JIT_COMPILE : 0;
  const char *error = nullptr;
  regex->extra = pcre_study(regex->code, PCRE_STUDY_EXTRA_NEEDED | jit, &error);
  if (!regex->extra) return;
  regex->extra->flags |= PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION;
  regex->extra->match_limit = match_limit;
  regex->extra->match_limit_recursion = match_limit_recursion;
  int has_jit = 0;
  pcre_fullinfo(regex->code, regex->extra, PCRE_INFO_JIT, &has_jit);
  regex->has_jit = has_jit != 0;
}

}  // namespace

const dorn_regex_t *dorn_regex_compile(const std::string &pattern) {
  auto result = std::make_unique<dorn_regex_t>();
  if (pattern.find('\0') != std::string::npos) return result.release();
  result->is_utf8 = dorn_is_utf8(pattern);
  if (result->is_utf8 && has_single_byte_escape(pattern)) return result.release();
  const char *error = nullptr;
  int error_offset = 0;
  result->code =
      pcre_compile(pattern.c_str(), result->is_utf8 ? PCRE_UTF8 | PCRE_NO_UTF8_CHECK : PCRE_NEVER_UTF, &error,
                   &error_offset, nullptr);
  if (!result->code) return result.release();
  set_limits(result.get());
  if (!result->extra) {  // without limits it must not run
    pcre_free(result->code);
    result->code = nullptr;
  }
  return result.release();
}

bool dorn_regex_is_valid(const dorn_regex_t *regex) {
  return regex->code != nullptr;
}

void dorn_regex_ref(const dorn_regex_t *regex) {
  regex->refs.fetch_add(1, std::memory_order_relaxed);
}

void dorn_regex_deref(const dorn_regex_t *regex) {
  if (regex->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    std::unique_ptr<const dorn_regex_t> owned(regex);
}

bool dorn_regex_match(const dorn_regex_t *regex, std::string_view text) {
  if (!regex->code || (regex->is_utf8 && !dorn_is_utf8(text))) return false;
  int captures[30];
  const char *subject = text.empty() ? "" : text.data();
  const int size = static_cast<int>(text.size());
  const int options = regex->is_utf8 ? PCRE_NO_UTF8_CHECK : 0;
  thread_local jit_stack_t jit;
  if (regex->has_jit && jit.stack) {
    return pcre_jit_exec(regex->code, regex->extra, subject, size, 0, options, captures, 30, jit.stack) >= 0;
  }
  return pcre_exec(regex->code, regex->extra, subject, size, 0, options, captures, 30) >= 0;
}
