#include "platform/dorn/dorn_regex.h"

#include <pcre.h>

#include <atomic>
#include <memory>

#include "platform/dorn/dorn_chars.h"

// Steps from one starting byte. A tag value takes well under a thousand; a pattern made to stall gives up after
// some 100 us, and its match with that.
static constexpr unsigned long match_limit = 20000;
static constexpr unsigned long match_limit_recursion = 200;  // of the interpreter, on the C stack
static constexpr int jit_stack_start = 32 * 1024;
static constexpr int jit_stack_max = 256 * 1024;
// Larger patterns are interpreted: translating them costs milliseconds.
static constexpr size_t max_translated_size = 8 * 1024;

struct dorn_regex_t {
  mutable std::atomic<uint32_t> refs{1};
  pcre *code = nullptr;
  bool is_utf8 = false;
  mutable std::atomic<pcre_extra *> extra{nullptr};  // machine code and limits, made by the first match

  ~dorn_regex_t() {
    if (pcre_extra *made = extra.load(std::memory_order_acquire)) pcre_free_study(made);
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

// Null when memory is short.
pcre_extra *study(const pcre *code) {
  size_t size = 0;
  pcre_fullinfo(code, nullptr, PCRE_INFO_SIZE, &size);
  const int jit = size <= max_translated_size ? PCRE_STUDY_JIT_COMPILE : 0;
  const char *error = nullptr;
  pcre_extra *extra = pcre_study(code, PCRE_STUDY_EXTRA_NEEDED | jit, &error);
  if (!extra) return nullptr;
  extra->flags |= PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION;
  extra->match_limit = match_limit;
  extra->match_limit_recursion = match_limit_recursion;
  return extra;
}

const pcre_extra *extra_of(const dorn_regex_t *regex) {
  pcre_extra *extra = regex->extra.load(std::memory_order_acquire);
  if (extra) return extra;
  pcre_extra *made = study(regex->code);
  if (!made || regex->extra.compare_exchange_strong(extra, made, std::memory_order_acq_rel)) return made;
  pcre_free_study(made);  // another thread was first
  return extra;
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
  const pcre_extra *extra = extra_of(regex);
  if (!extra) return false;  // without limits it must not run
  int captures[30];
  const char *subject = text.empty() ? "" : text.data();
  const int size = static_cast<int>(text.size());
  const int options = regex->is_utf8 ? PCRE_NO_UTF8_CHECK : 0;
  thread_local jit_stack_t jit;
  if ((extra->flags & PCRE_EXTRA_EXECUTABLE_JIT) && jit.stack) {
    return pcre_jit_exec(regex->code, extra, subject, size, 0, options, captures, 30, jit.stack) >= 0;
  }
  return pcre_exec(regex->code, extra, subject, size, 0, options, captures, 30) >= 0;
}
