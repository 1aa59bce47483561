#include "libvelmar/net/peer_http.h"

#include <curl/curl.h>

#include <atomic>
#include <memory>

#include "platform/krel/base/krel_log.h"

namespace {

constexpr size_t MAX_HEADER_LINE = 1024 * 1024;

struct slist_free_t {
  void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using slist_p = std::unique_ptr<curl_slist, slist_free_t>;

slist_p make_list(const std::vector<std::string> &items) {
  slist_p list;
  for (const auto &item : items) {
    curl_slist *longer = curl_slist_append(list.get(), item.c_str());
    krel_assert(longer);
    list.release();
    list.reset(longer);
  }
  return list;
}

struct transfer_t {
  const peer_body_callback_t *on_body;
  const peer_header_callback_t *on_header;
};

size_t body_callback(char *data, size_t size, size_t count, void *closure) {
  const auto *t = static_cast<transfer_t *>(closure);
  const std::string_view piece(data, size * count);
  return !*t->on_body || (*t->on_body)(piece) ? piece.size() : 0;
}

size_t header_callback(char *data, size_t size, size_t count, void *closure) {
  const auto *t = static_cast<transfer_t *>(closure);
  std::string name, value;
  if (*t->on_header && http_header_parse({data, size * count}, &name, &value)) (*t->on_header)(name, value);
  return size * count;
}

class curl_peer_c : public peer_http_c {
 public:
  peer_result_t perform(const peer_request_t &request, const peer_body_callback_t &on_body,
                        const peer_header_callback_t &on_header) override {
    thread_local const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                                  &curl_easy_cleanup);
    CURL *curl = handle.get();
    krel_assert(curl);
    curl_easy_reset(curl);  // keeps the live connections
    const slist_p headers = make_list(request.headers), connect_to = make_list(request.connect_to);
    transfer_t transfer{&on_body, &on_header};
    set_request(curl, request, headers.get(), connect_to.get());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, body_callback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, header_callback);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);

    peer_result_t result;
    const CURLcode code = curl_easy_perform(curl);
    result.code = code;
    if (code != CURLE_OK) result.error = curl_easy_strerror(code);
    long httpcode = 0;
    curl_off_t total_us = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpcode);
    curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME_T, &total_us);
    result.httpcode = httpcode;
    result.total_ms = total_us / 1000;
    return result;
  }

 private:
  static void set_request(CURL *curl, const peer_request_t &request, curl_slist *headers,
                          curl_slist *connect_to) {
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    if (request.method == "HEAD") curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    if (!request.body.empty()) {
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CONNECT_TO, connect_to);
    if (!request.ca_chain.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, request.ca_chain.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connect_timeout_ms));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout_ms));
    if (request.low_speed_ms >= 1000) {
      curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.low_speed_ms / 1000));
      curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    }
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  }
};

std::atomic<peer_http_c *> in_force{nullptr};

}  // namespace

peer_http_c *peer_http() {
  static curl_peer_c curl;
  peer_http_c *peer = in_force.load(std::memory_order_acquire);
  return peer ? peer : &curl;
}

void peer_http_set(peer_http_c *peer) {
  in_force.store(peer, std::memory_order_release);
}

bool http_header_parse(std::string_view line, std::string *name, std::string *value) {
  if (line.size() > MAX_HEADER_LINE || line.find("HTTP/") != std::string_view::npos) return false;
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!line.empty() && blank(line.front())) line.remove_prefix(1);
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  name->assign(line.substr(0, colon));
  for (char &c : *name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  line.remove_prefix(colon + 1);
  while (!line.empty() && blank(line.front())) line.remove_prefix(1);
  value->assign(line.substr(0, line.find_first_of("\r\n")));
  return true;
}
