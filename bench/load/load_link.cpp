#include "load_link.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "load_http.h"

namespace {

constexpr double VISIBLE_WITHIN_S = 300, LOOK_EVERY_S = 0.002;

// The number behind `"name": ` in a flat JSON object; -1 without one.
int64_t field(const std::string &json, const char *name) {
  const size_t at = json.find("\"" + std::string(name) + "\":");
  return at == json.npos ? -1 : strtoll(json.c_str() + at + strlen(name) + 3, nullptr, 10);
}

class http_link_c final : public load_link_c {
 public:
  http_link_c(const load_options_t &o, const char *content_type)
      : m_client(o.host, o.port), m_content_type(content_type) {
    m_path = o.form == form_e::graphite_http ? "/graphite/" + std::to_string(o.account) + "/" + o.check_uuid
                                             : "/raw";
  }

  bool send(std::string_view body, uint64_t count, connection_result_t *result) override;

 private:
  http_client_c m_client;
  const char *const m_content_type;
  std::string m_path;
};

bool http_link_c::send(std::string_view body, uint64_t count, connection_result_t *result) {
  const std::string head = "POST " + m_path + " HTTP/1.1\r\nX-Velmar-Datapoints: " + std::to_string(count) +
                           "\r\nContent-Type: " + m_content_type +
                           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
  http_answer_t answer;
  const bool answered = m_client.request(head, body, &answer);
  if (!answered || answer.status != 200 || field(answer.body, "updated") < 0) {
    if (result->first_error.empty())
      result->first_error = answered ? std::to_string(answer.status) + " " + answer.body : m_client.error();
    return false;
  }
  const auto positive = [&](const char *name) {
    return static_cast<uint64_t>(std::max<int64_t>(field(answer.body, name), 0));
  };
  const uint64_t refused = positive("errors");
  result->misdirected += positive("misdirected");
  result->discarded += positive("discarded");
  result->refused += refused;
  result->acknowledged += positive("updated") + positive("misdirected");
  if (refused && result->first_error.empty()) result->first_error = answer.body;
  return refused == 0;
}

// Lines over TCP. Nobody acknowledges them: what the socket took counts until the end shows otherwise.
class stream_link_c final : public load_link_c {
 public:
  stream_link_c(const load_options_t &options, const load_data_c &data, const connection_result_t &result)
      : m_options(options), m_data(data), m_first(result.first_series), m_series(result.series) {}
  ~stream_link_c() override { close(); }

  bool send(std::string_view body, uint64_t count, connection_result_t *result) override;
  bool finish(connection_result_t *result) override;

 private:
  bool connect();
  bool is_visible(http_client_c *client, uint64_t series, uint64_t step) const;
  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }

  const load_options_t &m_options;
  const load_data_c &m_data;
  const uint64_t m_first, m_series;
  int m_fd = -1;
};

bool stream_link_c::connect() {
  if (m_fd >= 0) return true;
  addrinfo hints{}, *found = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  errno = 0;
  if (getaddrinfo(m_options.host.c_str(), m_options.graphite_port.c_str(), &hints, &found)) return false;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> free(found, freeaddrinfo);
  m_fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return m_fd >= 0 && ::connect(m_fd, found->ai_addr, found->ai_addrlen) == 0;
}

bool stream_link_c::send(std::string_view body, uint64_t count, connection_result_t *result) {
  bool ok = connect();
  while (ok && !body.empty()) {
    const ssize_t n = ::send(m_fd, body.data(), body.size(), MSG_NOSIGNAL);
    ok = n > 0 || errno == EINTR;
    body.remove_prefix(static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  if (ok) {
    result->acknowledged += count;
    return true;
  }
  if (result->first_error.empty()) result->first_error = std::string("graphite: ") + strerror(errno);
  close();
  return false;
}

bool stream_link_c::is_visible(http_client_c *client, uint64_t series, uint64_t step) const {
  const std::string ms = std::to_string(m_data.time_ms(step));
  const auto seconds = [](uint64_t t) {
    const std::string fraction = std::to_string(t % 1000 + 1000);
    return std::to_string(t / 1000) + "." + fraction.substr(1);
  };
  const std::string path = "/raw/" + m_data.uuid(series) + "/" + url_escape(m_data.metric_name(series)) +
                           "?start_ts=" + seconds(m_data.time_ms(step)) +
                           "&end_ts=" + seconds(m_data.time_ms(step) + 1);
  http_answer_t answer;
  return client->request("GET " + path + " HTTP/1.1\r\n", "", &answer) && answer.status == 200 &&
         answer.body.find("[" + ms + ",") != answer.body.npos;
}

bool stream_link_c::finish(connection_result_t *result) {
  close();
  if (result->acknowledged == 0) return false;
  http_client_c client(m_options.host, m_options.port);
  const uint64_t k = m_options.per_metric, last = m_series * m_options.steps - 1, pair = last / k;
  const uint64_t series = m_first + pair % m_series, step = pair / m_series * k + last % k;
  for (const double give_up = clock_s() + VISIBLE_WITHIN_S; clock_s() < give_up;
       sleep_until(clock_s() + LOOK_EVERY_S))
    if (is_visible(&client, series, step)) return true;
  result->first_error = "graphite: the last sample cannot be read back: " + m_data.metric_name(series);
  return false;
}

}  // namespace

std::unique_ptr<load_link_c> make_link(const load_options_t &options, const load_data_c &data,
                                       const connection_result_t &result, const char *content_type) {
  if (options.form == form_e::graphite) return std::make_unique<stream_link_c>(options, data, result);
  return std::make_unique<http_link_c>(options, content_type);
}
