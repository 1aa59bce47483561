#include "platform/krel/base/krel_log.h"

#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/krel/base/krel_log_writer.h"
#include "platform/krel/base/krel_util.h"

namespace {

constexpr size_t k_first_line = 2048;
constexpr size_t k_longest_line = 1 << 20;
constexpr const char k_hex[] = "0123456789abcdef";

void append_two(std::string &to, int value) {
  to += static_cast<char>('0' + value / 10);
  to += static_cast<char>('0' + value % 10);
}

// "2026-01-31 12:00:00", kept per thread for the second it is good for.
const char *second_text(time_t second) {
  thread_local time_t kept = -1;
  thread_local char text[32] = "";
  if (second != kept) {
    struct tm tm;
    gmtime_r(&second, &tm);
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &tm);
    kept = second;
  }
  return text;
}

std::string line_of(const krel_log_stream_t *stream, const struct timeval *now, std::string_view message) {
  struct timeval taken;
  if (now == nullptr) {
    gettimeofday(&taken, nullptr);
    now = &taken;
  }
  while (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  std::string line;
  line.reserve(message.size() + 96);
  line += '[';
  line += second_text(now->tv_sec);
  line += '.';
  int us = static_cast<int>(now->tv_usec);
  append_two(line, us / 10000);
  append_two(line, us / 100 % 100);
  append_two(line, us % 100);
  line += "] [";
  line += stream->name;
  line += "] [";
  line += krel_thread_getname();
  line += "] ";
  for (char c : message) {
    unsigned char u = static_cast<unsigned char>(c);
    if ((u < 0x20 && u != '\t') || u == 0x7f) {
      line += "\\x";
      line += k_hex[u >> 4];
      line += k_hex[u & 15];
    } else {
      line += c;
    }
  }
  line += '\n';
  return line;
}

std::string vformat(const char *format, va_list args) {
  char first[k_first_line];
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(first, sizeof(first), format, args);
  std::string text;
  if (n < 0) {
    text = fmt::format("(a message that could not be formatted: {})", format);
  } else if (static_cast<size_t>(n) < sizeof(first)) {
    text.assign(first, static_cast<size_t>(n));
  } else {
    text.resize(std::min(static_cast<size_t>(n), k_longest_line) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
    text.pop_back();
  }
  va_end(again);
  return text;
}

}  // namespace

void krel_vlog(krel_log_stream_t *stream, const struct timeval *now, const char *file, int line,
               const char *format, va_list args) {
  if (!krel_log_has_material_output(stream)) return;
  krel_log_writer_put(stream, line_of(stream, now, vformat(format, args)));
}

void krel_log_write_printf(krel_log_stream_t *stream, const struct timeval *now, const char *file, int line,
                           const char *format, ...) {
  va_list args;
  va_start(args, format);
  krel_vlog(stream, now, file, line, format, args);
  va_end(args);
}

void krel_log_write_fmt(krel_log_stream_t *stream, const char *file, int line, fmt::string_view format,
                        fmt::format_args args) {
  fmt::memory_buffer text;
  fmt::vformat_to(fmt::appender(text), format, args);
  std::string_view message(text.data(), std::min(text.size(), k_longest_line));
  krel_log_writer_put(stream, line_of(stream, nullptr, message));
}

void krel_fatal_at(const char *file, int line, const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = "[FATAL] " + vformat(format, args);
  va_end(args);
  krel_log_writer_put_fatal(krel_error, line_of(krel_error, nullptr, message));
  std::abort();
}
