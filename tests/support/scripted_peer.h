#pragma once
// A peer that answers from a script and records what it was asked. While one lives it stands in for all
// HTTP to peers. Answers are taken in order for each URL prefix; a call without an answer fails to connect.

#include <deque>
#include <map>
#include <mutex>

#include "libvelmar/net/peer_http.h"

class scripted_peer_c : public peer_http_c {
 public:
  struct answer_t {
    int64_t httpcode = 200;
    std::string body{};
    std::vector<std::pair<std::string, std::string>> headers{};
    int code = 0;                   // transport error; 0 none
    size_t piece = 65536;           // the body arrives in pieces of this size
    size_t cut_after = ~size_t{0};  // the connection breaks after that many bytes
  };

  scripted_peer_c() { peer_http_set(this); }
  ~scripted_peer_c() override { peer_http_set(nullptr); }

  void answer(const std::string &url_prefix, answer_t a) {
    const std::lock_guard lock(m_mutex);
    m_script[url_prefix].push_back(std::move(a));
  }
  std::vector<peer_request_t> requests() const {
    const std::lock_guard lock(m_mutex);
    return m_requests;
  }

  peer_result_t perform(const peer_request_t &request, const peer_body_callback_t &on_body,
                        const peer_header_callback_t &on_header) override {
    answer_t a{0, "", {}, 7, 1, 0};
    {
      const std::lock_guard lock(m_mutex);
      m_requests.push_back(request);
      for (auto &[prefix, answers] : m_script)
        if (request.url.rfind(prefix, 0) == 0 && !answers.empty()) {
          a = std::move(answers.front());
          answers.pop_front();
          break;
        }
    }
    peer_result_t result;
    result.httpcode = a.httpcode;
    result.code = a.code;
    if (a.code) {
      result.error = "scripted error";
      return result;
    }
    if (on_header)
      for (const auto &[name, value] : a.headers) on_header(name, value);
    for (size_t at = 0; at < a.body.size(); at += a.piece) {
      if (at >= a.cut_after || (on_body && !on_body(std::string_view(a.body).substr(at, a.piece)))) {
        result.code = 23;
        result.error = "transfer broken";
        break;
      }
    }
    return result;
  }

 private:
  mutable std::mutex m_mutex;
  std::map<std::string, std::deque<answer_t>> m_script;
  std::vector<peer_request_t> m_requests;
};
