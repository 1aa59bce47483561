#include "platform/krel/http/http_transport.h"

#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/krel/event/krelev.h"

int http_transport_c::read_needs() const {
  return KRELEV_READ;
}

int http_transport_c::write_needs() const {
  return KRELEV_WRITE;
}

namespace {

bool is_again(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

class plain_transport_c final : public http_transport_c {
 public:
  explicit plain_transport_c(int fd) : m_fd(fd) {}
  ~plain_transport_c() override { ::close(m_fd); }

  ssize_t read(void *to, size_t size) override {
    const ssize_t n = ::recv(m_fd, to, size, 0);
    if (n >= 0) return n;
    return is_again(errno) ? HTTP_AGAIN : HTTP_BROKEN;
  }

  ssize_t write(const struct iovec *pieces, int count) override {
    ssize_t n;
    if (count == 1) {
      n = ::send(m_fd, pieces[0].iov_base, pieces[0].iov_len, MSG_NOSIGNAL);
    } else {
      struct msghdr message {};
      message.msg_iov = const_cast<struct iovec *>(pieces);
      message.msg_iovlen = static_cast<size_t>(count);
      n = ::sendmsg(m_fd, &message, MSG_NOSIGNAL);
    }
    if (n >= 0) return n;
    return is_again(errno) ? HTTP_AGAIN : HTTP_BROKEN;
  }

  ssize_t send_file(int fd, off_t *offset, size_t length) override {
    const ssize_t n = ::sendfile(m_fd, fd, offset, std::min<size_t>(length, 1 << 20));
    if (n > 0) return n;
    return n < 0 && is_again(errno) ? HTTP_AGAIN : HTTP_BROKEN;
  }

  void shutdown_write() override { ::shutdown(m_fd, SHUT_WR); }
  int fd() const override { return m_fd; }

 private:
  int m_fd;
};

}  // namespace

std::unique_ptr<http_transport_c> http_plain_transport(int fd) {
  return std::make_unique<plain_transport_c>(fd);
}
