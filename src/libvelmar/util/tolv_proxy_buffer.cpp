#include "libvelmar/util/tolv_proxy_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev.h"

namespace {

std::string &proxy_dir() {
  static std::string directory;
  return directory;
}

std::atomic<uint32_t> file_counter{0};

}  // namespace

void tolv_proxy_buffer_init_proxy_dir(const char *directory) {
  if (!proxy_dir().empty()) return;
  const std::string path = std::string(directory) + "/proxy_tmp_files";
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
    krel_fatal("rest_helper_init: could not create dir for %s - %d (%s)\n", path.c_str(), errno,
               strerror(errno));
  proxy_dir() = path;
}

tolv_proxy_buffer_t::~tolv_proxy_buffer_t() {
  drop();
}

void tolv_proxy_buffer_t::drop() {
  if (m_mmap_buf) munmap(m_mmap_buf, m_mmap_len);
  m_mmap_buf = nullptr;
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
  m_len = 0;
}

bool tolv_proxy_buffer_t::create_file() {
  if (m_fd >= 0) {
    krel_log(
        krel_error,
        "warning: tolv_proxy_buffer_handle_curl_data - trying to create file handle, but already exists\n");
    drop();
  }
  std::string path = fmt::format("{}/proxy_data_{:x}_XXXXXX", proxy_dir(), file_counter.fetch_add(1));
  m_fd = mkostemp(path.data(), O_CLOEXEC);
  if (m_fd < 0) return false;
  unlink(path.c_str());
  return true;
}

bool tolv_proxy_buffer_t::handle_data(std::string_view piece) {
  if (m_len == 0 && !create_file()) m_failed = true;
  while (!m_failed && !piece.empty()) {
    const ssize_t n = write(m_fd, piece.data(), piece.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      m_failed = true;
      break;
    }
    m_len += static_cast<uint64_t>(n);
    piece.remove_prefix(static_cast<size_t>(n));
  }
  return !m_failed;
}

void tolv_proxy_buffer_t::log_failure(const char *who, const peer_request_t &request,
                                      const peer_result_t &result) const {
  const auto total = static_cast<unsigned long>(result.total_ms);
  const std::string code = result.httpcode ? std::to_string(result.httpcode) : "(not set)";
  if (m_failed)
    krel_log(krel_error, "%s: curl to %s failed - internal file handling error - total time %lums\n", who,
             request.url.c_str(), total);
  else if (request.timeout_ms)
    krel_log(
        krel_error,
        "%s: curl to %s failed - curl error code %d (\"%s\"), httpcode %s - timeout set to %dms - total time "
        "%lums\n",
        who, request.url.c_str(), result.code, result.error.c_str(), code.c_str(), request.timeout_ms, total);
  else
    krel_log(krel_error,
             "%s: curl to %s failed - curl error code %d (\"%s\"), httpcode %s - total time %lums\n", who,
             request.url.c_str(), result.code, result.error.c_str(), code.c_str(), total);
}

bool tolv_proxy_buffer_t::perform(const char *who, peer_request_t request,
                                  const peer_header_callback_t &on_header) {
  krel_assert(!krelev_in_loop());
  drop();
  m_failed = false;
  m_error_body.clear();
  if (const uint64_t task = krel_task_get_current_task())
    request.headers.push_back(fmt::format("X-Velmar-TaskId: {}", task));
  const peer_result_t result = peer_http()->perform(
      request, [this](std::string_view piece) { return handle_data(piece); }, on_header);
  m_httpcode = result.httpcode;
  if (result.code == 0 && result.httpcode == 200 && !m_failed) return true;
  if (result.code != 0 || m_failed) {
    log_failure(who, request, result);
    if (result.httpcode == 200) m_httpcode = 500;
  } else if (m_error_limit) {
    m_error_body = mmap().substr(0, m_error_limit);
  }
  drop();
  return false;
}

void tolv_proxy_buffer_t::reset_fd_position() {
  if (m_fd >= 0) lseek(m_fd, 0, SEEK_SET);
}

int64_t tolv_proxy_buffer_t::read_fd(void *bytes, size_t size) {
  ssize_t n;
  do n = read(m_fd, bytes, size);
  while (n < 0 && errno == EINTR);
  return n;
}

int tolv_proxy_buffer_t::transfer_fd_ownership() {
  return std::exchange(m_fd, -1);
}

std::string_view tolv_proxy_buffer_t::mmap() {
  if (!m_mmap_buf && m_fd >= 0 && m_len) {
    void *map = ::mmap(nullptr, m_len, PROT_READ, MAP_PRIVATE, m_fd, 0);
    if (map == MAP_FAILED) return {};
    madvise(map, m_len, MADV_SEQUENTIAL);
    m_mmap_buf = map;
    m_mmap_len = m_len;
  }
  return {static_cast<const char *>(m_mmap_buf), m_mmap_buf ? m_mmap_len : 0};
}

krel_json_ptr tolv_proxy_buffer_t::to_json_object() {
  return krel_json_ptr(krel_json_tokener_parse(mmap()));
}

bool tolv_proxy_buffer_t::krel_http_append_mmap_from_fd(krel_http_session_t *session) {
  if (m_len == 0) return true;
  const size_t length = m_len;
  return krel_http_response_append_mmap(session, transfer_fd_ownership(), length, 0);
}
