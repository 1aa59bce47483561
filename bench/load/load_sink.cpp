#include "load_sink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// The number in the header `name` (lower case, with its colon) of a head in lower case; 0 without one.
uint64_t header(const std::string &head, const char *name) {
  const size_t at = head.find(name);
  return at == head.npos ? 0 : strtoull(head.c_str() + at + strlen(name), nullptr, 10);
}

void serve(int fd) {
  std::vector<char> buffer(1 << 20);
  std::string head;
  for (ssize_t n; (n = recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
    head.append(buffer.data(), static_cast<size_t>(n));
    const size_t end = head.find("\r\n\r\n");
    if (end == head.npos) {
      if (head.size() > 65536) break;
      continue;
    }
    uint64_t got = head.size() - end - 4;
    head.resize(end + 2);
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    const uint64_t length = header(head, "\r\ncontent-length:"),
                   count = header(head, "\r\nx-velmar-datapoints:");
    while (got < length &&
           (n = recv(fd, buffer.data(), std::min<uint64_t>(buffer.size(), length - got), 0)) > 0)
      got += static_cast<uint64_t>(n);
    char body[160], answer[320];
    const int size = snprintf(
        body, sizeof(body),
        "{ \"records\": %llu, \"updated\": %llu, \"misdirected\": 0, \"discarded\": 0, \"errors\": 0 }",
        static_cast<unsigned long long>(count), static_cast<unsigned long long>(count));
    const int all =
        snprintf(answer, sizeof(answer), "HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s", size, body);
    if (got != length || send(fd, answer, static_cast<size_t>(all), MSG_NOSIGNAL) != all) break;
    head.clear();
  }
  close(fd);
}

}  // namespace

int run_sink(uint16_t port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) || listen(listener, 256)) {
    perror("velmar-load: sink");
    return 2;
  }
  fprintf(stderr, "counting on 127.0.0.1:%d\n", port);
  for (;;) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) continue;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    std::thread(serve, fd).detach();
  }
}
