// Files below the document root. Jobs open and read them: the loop never waits for the disk.

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include "platform/krel/http/http_files.h"
#include "platform/krel/http/http_response.h"

namespace {

std::string &document_root() {
  static std::string *root = new std::string;
  return *root;
}

const char *content_type(std::string_view path) {
  static constexpr std::pair<std::string_view, const char *> types[] = {
      {".html", "text/html; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".json", "application/json"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".jpg", "image/jpeg"},
      {".gif", "image/gif"},
      {".ico", "image/x-icon"},
      {".webp", "image/webp"},
      {".woff2", "font/woff2"},
      {".wasm", "application/wasm"},
      {".xml", "application/xml"},
      {".md", "text/plain; charset=utf-8"},
      {".txt", "text/plain; charset=utf-8"},
  };
  for (const auto &[suffix, type] : types) {
    if (path.ends_with(suffix)) return type;
  }
  return "application/octet-stream";
}

bool is_text(std::string_view type) {
  return type.starts_with("text/") || type.starts_with("application/json") || type.starts_with("image/svg");
}

// Step by step from the root: ".." and symbolic links are refused, so nothing leads out of it.
int open_below(const std::string &root, std::string_view path) {
  int at = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  while (at >= 0 && !path.empty()) {
    const size_t slash = path.find('/');
    const std::string name(path.substr(0, slash));
    const bool last = slash == std::string_view::npos;
    path = last ? std::string_view() : path.substr(slash + 1);
    if (name.empty() && !last) continue;
    int next = -1;
    if (!name.empty() && name[0] != '.')
      next =
          ::openat(at, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (last ? 0 : O_DIRECTORY));
    ::close(at);
    at = next;
  }
  return at;
}

std::string http_date(time_t when) {
  char text[40];
  struct tm utc;
  ::gmtime_r(&when, &utc);
  ::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return text;
}

// Whether the copy that the client holds is the file as it is.
bool unchanged(krel_http_session_t *session, const std::string &etag, time_t modified) {
  const krel_http_request_t *request = krel_http_session_request(session);
  if (const char *tags = krel_http_request_header(request, "if-none-match"))
    return std::string_view(tags) == "*" || std::string_view(tags).find(etag) != std::string_view::npos;
  const char *since = krel_http_request_header(request, "if-modified-since");
  if (!since) return false;
  struct tm utc {};
  const char *end = ::strptime(since, "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return end && *end == '\0' && modified <= ::timegm(&utc);
}

void answer(krel_http_session_t *session, int status, const char *text) {
  krel_http_response_status_set(session, status, nullptr);
  krel_http_response_header_set(session, "Content-Type", "application/json");
  krel_http_response_appendf(session, "{\"error\": \"%s\"}\n", text);
  krel_http_response_end(session);
}

void send_file(krel_http_session_t *session, const std::string &path) {
  const int fd = open_below(document_root(), path);
  struct stat info;
  if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    if (fd >= 0) ::close(fd);
    return answer(session, 404, "not found");
  }
  const auto size = static_cast<size_t>(info.st_size);
  const std::string etag = fmt::format("\"{:x}-{:x}-{:x}\"", info.st_mtim.tv_sec, info.st_mtim.tv_nsec, size);
  krel_http_response_header_set(session, "ETag", etag.c_str());
  krel_http_response_header_set(session, "Last-Modified", http_date(info.st_mtim.tv_sec).c_str());
  krel_http_response_header_set(session, "Cache-Control", "no-cache");
  if (unchanged(session, etag, info.st_mtim.tv_sec)) {
    ::close(fd);
    krel_http_response_status_set(session, 304, nullptr);
    krel_http_response_end(session);
    return;
  }
  const char *type = content_type(path);
  krel_http_response_status_set(session, 200, nullptr);
  krel_http_response_header_set(session, "Content-Type", type);
  krel_http_response_header_set(session, "X-Content-Type-Options", "nosniff");
  if (is_text(type)) krel_http_response_option_set(session, KREL_HTTP_GZIP);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_WILLNEED);
  if (size > 0)
    krel_http_response_append_mmap(session, fd, size, 0);
  else
    ::close(fd);
  krel_http_response_end(session);
}

int nothing_more(krel_http_rest_closure_t *, int, char **) {
  return 0;
}

}  // namespace

void http_files_set_root(const std::string &root) {
  document_root() = root;
}

int krel_rest_simple_file_handler(krel_http_rest_closure_t *restc, int npats, char **pats) {
  krel_http_session_t *session = restc->http_ctx;
  if (document_root().empty()) {
    answer(session, 404, "not found");
    return 0;
  }
  std::string path = npats > 0 ? pats[0] : krel_http_request_uri_str(krel_http_session_request(session));
  if (path.empty() || path.back() == '/') path += "index.html";
  restc->fastpath = nothing_more;
  krel_http_connection_event_float(krel_http_session_connection(session));
  krelev_jobq_run(nullptr, [session, path = std::move(path)] {
    try {
      send_file(session, path);
      krel_http_session_resume_after_float(session);
    } catch (...) {
      krel_http_session_fail(session);
    }
  });
  return 0;
}
