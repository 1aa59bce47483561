#pragma once
// A peer's answer, held for forwarding in an unlinked temporary file, so that big answers never sit in
// memory. A buffer belongs to one thread at a time.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "libvelmar/net/peer_http.h"
#include "platform/krel/base/krel_json.h"
#include "platform/krel/http/krel_http.h"

// Remembers the directory and makes "<dir>/proxy_tmp_files". Only the first call counts; failure is fatal.
void tolv_proxy_buffer_init_proxy_dir(const char *directory);

class tolv_proxy_buffer_t {
 public:
  tolv_proxy_buffer_t() = default;
  ~tolv_proxy_buffer_t();
  tolv_proxy_buffer_t(const tolv_proxy_buffer_t &) = delete;
  tolv_proxy_buffer_t &operator=(const tolv_proxy_buffer_t &) = delete;

  // Runs the transfer (blocks; not on a loop thread) into the buffer. `who` names the caller in logs. True
  // when a 200 came in whole; otherwise the buffer is empty and get_httpcode tells the code (500 when the
  // transfer broke, 0 when there was no answer). Adds the header of the current task.
  bool perform(const char *who, peer_request_t request, const peer_header_callback_t &on_header = nullptr);

  // From now on the first bytes of an answer that is not a 200 are kept.
  void keep_error_body(size_t limit) { m_error_limit = limit; }
  const std::string &get_error_body() const { return m_error_body; }
  uint64_t get_len() const { return m_len; }
  int64_t get_httpcode() const { return m_httpcode; }
  bool has_valid_fd() const { return m_fd >= 0; }
  void reset_fd_position();
  int64_t read_fd(void *bytes, size_t size);  // retries on EINTR
  int transfer_fd_ownership();                // the caller closes it; -1: there is none
  std::string_view mmap();                    // empty on failure; unmapped with the buffer
  krel_json_ptr to_json_object();
  // Hands the answer over as the body of the session's response.
  bool krel_http_append_mmap_from_fd(krel_http_session_t *session);

 private:
  bool handle_data(std::string_view piece);
  bool create_file();
  void drop();
  void log_failure(const char *who, const peer_request_t &request, const peer_result_t &result) const;

  uint64_t m_len = 0;
  int m_fd = -1;
  bool m_failed = false;
  int64_t m_httpcode = 0;
  size_t m_error_limit = 0;
  std::string m_error_body;
  void *m_mmap_buf = nullptr;
  size_t m_mmap_len = 0;
};
