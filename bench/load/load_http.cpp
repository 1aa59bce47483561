#include "load_http.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {
constexpr int TIMEOUT_S = 120;
constexpr size_t READ_SIZE = 65536;
}  // namespace

std::string url_escape(const std::string &text) {
  std::string out;
  char three[4];
  for (const unsigned char c : text) {
    if (isalnum(c) || c == '_' || c == '-' || c == '.') {
      out += static_cast<char>(c);
      continue;
    }
    snprintf(three, sizeof(three), "%%%02X", c);
    out += three;
  }
  return out;
}

bool http_client_c::fail(const char *what) {
  m_error = errno ? std::string(what) + ": " + strerror(errno) : what;
  close();
  return false;
}

void http_client_c::close() {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
}

bool http_client_c::connect() {
  if (m_fd >= 0) return true;
  addrinfo hints{}, *found = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  if (const int code = getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &found)) {
    m_error = m_host + ": " + gai_strerror(code);
    return false;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> free(found, freeaddrinfo);
  m_fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_fd < 0) return fail("socket");
  const int on = 1;
  const timeval limit{TIMEOUT_S, 0};
  setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  m_input.clear();
  m_at = 0;
  return ::connect(m_fd, found->ai_addr, found->ai_addrlen) == 0 || fail("connect");
}

bool http_client_c::send_all(std::string_view head, std::string_view body) {
  while (!head.empty() || !body.empty()) {
    iovec parts[2] = {{const_cast<char *>(head.data()), head.size()},
                      {const_cast<char *>(body.data()), body.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t n = sendmsg(m_fd, &message, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail("send");
    const size_t of_head = std::min(head.size(), static_cast<size_t>(n));
    head.remove_prefix(of_head);
    body.remove_prefix(static_cast<size_t>(n) - of_head);
  }
  return true;
}

bool http_client_c::fill() {
  if (m_at == m_input.size()) {
    m_input.clear();
    m_at = 0;
  }
  const size_t used = m_input.size();
  m_input.resize(used + READ_SIZE);
  ssize_t n;
  do n = recv(m_fd, m_input.data() + used, READ_SIZE, 0);
  while (n < 0 && errno == EINTR);
  m_input.resize(used + static_cast<size_t>(std::max<ssize_t>(n, 0)));
  if (n == 0) errno = 0;
  return n > 0 || fail(n ? "receive" : "the node closed the connection");
}

bool http_client_c::line(std::string *out) {
  for (size_t from = m_at;;) {
    const size_t end = m_input.find("\r\n", from);
    if (end != m_input.npos) {
      out->assign(m_input, m_at, end - m_at);
      m_at = end + 2;
      return true;
    }
    const size_t before = m_at;
    from = m_input.size() > m_at ? m_input.size() - 1 : m_at;
    if (!fill()) return false;
    from -= before - m_at;
  }
}

bool http_client_c::take(size_t length, std::string *out) {
  while (length > 0) {
    if (m_at == m_input.size() && !fill()) return false;
    const size_t n = std::min(length, m_input.size() - m_at);
    if (out) out->append(m_input, m_at, n);
    m_at += n;
    length -= n;
  }
  return true;
}

bool http_client_c::read_answer(http_answer_t *answer) {
  std::string text;
  answer->body.clear();
  if (!line(&text)) return false;
  if (text.rfind("HTTP/1.", 0) != 0 || text.size() < 12) return fail("the answer is no HTTP");
  answer->status = atoi(text.c_str() + 9);
  size_t length = 0;
  bool chunked = false, last = false;
  for (;;) {
    if (!line(&text)) return false;
    if (text.empty()) break;
    if (strncasecmp(text.c_str(), "content-length:", 15) == 0)
      length = strtoull(text.c_str() + 15, nullptr, 10);
    if (strncasecmp(text.c_str(), "transfer-encoding:", 18) == 0) chunked = text.find("chunked") != text.npos;
    if (strncasecmp(text.c_str(), "connection:", 11) == 0) last = text.find("close") != text.npos;
  }
  if (answer->status == 100) return read_answer(answer);
  while (chunked) {
    if (!line(&text)) return false;
    const size_t n = strtoull(text.c_str(), nullptr, 16);
    if (!take(n, &answer->body) || !line(&text)) return false;
    if (n == 0) break;
  }
  if (!chunked && !take(length, &answer->body)) return false;
  if (last) close();
  return true;
}

bool http_client_c::request(std::string_view head, std::string_view body, http_answer_t *answer) {
  errno = 0;
  if (!connect()) return false;
  m_head.assign(head);
  m_head += "Host: " + m_host + "\r\n\r\n";
  return send_all(m_head, body) && read_answer(answer);
}
