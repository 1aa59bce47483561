#include "db/ranged/nntbs/shard/kv_engine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace db::ranged::nntbs {

int reserve_file(const std::string &path, int64_t size) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  int rc;
  do {
    rc = posix_fallocate(fd, 0, size);
  } while (rc == EINTR);
  close(fd);
  return rc;
}

}  // namespace db::ranged::nntbs
