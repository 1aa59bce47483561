#pragma once
// Log streams: a tree by "/" in their names. A stream without outlets of its own writes to the
// nearest parent that has some, top-level ones to the default outlet (standard error at start). A
// stream is on or off by the nearest setting up the tree; without any, "error" and "notice" are on and
// every other is off. Streams live for the life of the process once found.
// A line is "[2026-01-31 12:00:00.123456] [error/metrics] [thread] message", the time in UTC; control
// characters inside the message are written \xNN, so that no message can forge a line.
// All functions are safe from any thread.

#include <fmt/core.h>
#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// First member of every stream: nonzero while the stream is switched on and some outlet would get
// its lines. Read inline, so that a call on a silent stream costs one load and a branch.
struct krel_log_stream_t {
  std::atomic<bool> has_output;
  const char *name;  // "debug/fetch"
};

// The streams "error", "notice" and "debug"; never null, usable before any configuration is read
// (then error and notice go to standard error).
extern krel_log_stream_t *const krel_error;
extern krel_log_stream_t *const krel_notice;
extern krel_log_stream_t *const krel_debug;

// The stream of that name, made when missing.
krel_log_stream_t *krel_log_stream_find(const char *name);
bool krel_log_stream_exists(const char *name);
// The stream of that name, switched on, with this descriptor as its only outlet whatever the
// configuration says. The descriptor stays the caller's and must outlive the stream's use.
krel_log_stream_t *krel_log_stream_new_on_fd(const char *name, int fd);
// Switches a stream by hand; stronger than the configuration, read before or after.
void krel_log_stream_switch(const char *name, bool on);

inline bool krel_log_has_material_output(const krel_log_stream_t *stream) {
  return stream->has_output.load(std::memory_order_relaxed);
}

// printf style. `now` may be null: the time of the call is taken. A missing newline is added.
void krel_vlog(krel_log_stream_t *stream, const struct timeval *now, const char *file, int line,
               const char *format, va_list args) __attribute__((format(printf, 5, 0)));
void krel_log_write_printf(krel_log_stream_t *stream, const struct timeval *now, const char *file, int line,
                           const char *format, ...) __attribute__((format(printf, 5, 6)));
// fmt style
void krel_log_write_fmt(krel_log_stream_t *stream, const char *file, int line, fmt::string_view format,
                        fmt::format_args args);

// krel_log(stream, "read %d\n", n): printf style; the arguments are not evaluated on a silent stream.
#define krel_log(stream, ...)                                                       \
  do {                                                                              \
    krel_log_stream_t *krel_log_s_ = (stream);                                      \
    if (krel_log_has_material_output(krel_log_s_))                                  \
      krel_log_write_printf(krel_log_s_, nullptr, __FILE__, __LINE__, __VA_ARGS__); \
  } while (0)

// krel_ex_log(stream, "read {}\n", n): fmt style, checked at compile time.
#define krel_ex_log(stream, format, ...)                                                            \
  do {                                                                                              \
    krel_log_stream_t *krel_log_s_ = (stream);                                                      \
    if (krel_log_has_material_output(krel_log_s_))                                                  \
      ::krel_log_detail::write(krel_log_s_, __FILE__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)

namespace krel_log_detail {
template <typename... Args>
void write(krel_log_stream_t *stream, const char *file, int line, fmt::format_string<Args...> format,
           Args &&...args) {
  krel_log_write_fmt(stream, file, line, format, fmt::make_format_args(args...));
}
}  // namespace krel_log_detail

// Writes go to the outlets on the calling thread (synch, the state at start) or through a queue and
// one writer thread (asynch). Going synch first drains the queue.
void krel_log_go_synch();
void krel_log_go_asynch();
// Closes and opens every file outlet again (after rotation, on SIGHUP).
void krel_log_reopen_all();

// One line of the logs' configuration. A path is "-" (standard error) or a file; an empty one sets no
// outlet. rotate_seconds 0: never rotated; retain_seconds 0: rotated files are kept.
struct krel_log_setting_t {
  std::string name;
  std::optional<bool> enabled;
  std::string path;
  uint64_t rotate_seconds = 0;
  uint64_t retain_seconds = 0;
};
// Replaces outlets and switches of all streams. A name may come several times to have several outlets.
// False with the reason when a file cannot be opened; the outlets before then stay in force.
bool krel_log_configure(const std::vector<krel_log_setting_t> &settings, const std::string &default_path,
                        std::string *error);
// From now on this process rotates its files by their age (off at start, so that only one of several
// processes that share a file does it): FILE becomes FILE.<unix seconds>, and older ones go.
void krel_log_rotation(bool on);

// Logs "[FATAL] " and the text on krel_error synchronously, then aborts. Text is printf style and
// carries no "[FATAL] " of its own.
[[noreturn]] void krel_fatal_at(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
#define krel_fatal(...) krel_fatal_at(__FILE__, __LINE__, __VA_ARGS__)

// Stays on in every build: "[FATAL] assertion (%s) at %s:%d failed\n", then abort.
#define krel_assert(condition)                                                        \
  do {                                                                                \
    if (__builtin_expect(!(condition), 0))                                            \
      krel_fatal("assertion (%s) at %s:%d failed\n", #condition, __FILE__, __LINE__); \
  } while (0)
