#pragma once
// A blocking HTTP/1.1 client on one connection that is kept. One thread.

#include <string>
#include <string_view>

// For one part of a path.
std::string url_escape(const std::string &text);

struct http_answer_t {
  int status = 0;
  std::string body;
};

class http_client_c {
 public:
  http_client_c(std::string host, std::string port) : m_host(std::move(host)), m_port(std::move(port)) {}
  ~http_client_c() { close(); }
  http_client_c(const http_client_c &) = delete;
  http_client_c &operator=(const http_client_c &) = delete;

  // `head` is the request line and the headers but Host, each with its line end. True with a whole answer;
  // false with the reason in error(), and the connection closed: the next request opens another.
  bool request(std::string_view head, std::string_view body, http_answer_t *answer);
  const std::string &error() const { return m_error; }
  void close();

 private:
  bool connect();
  bool send_all(std::string_view head, std::string_view body);
  bool fill();  // more input into m_input
  bool line(std::string *out);
  bool take(size_t length, std::string *out);
  bool read_answer(http_answer_t *answer);
  bool fail(const char *what);

  const std::string m_host, m_port;
  int m_fd = -1;
  std::string m_input, m_head, m_error;
  size_t m_at = 0;  // of m_input, taken so far
};
