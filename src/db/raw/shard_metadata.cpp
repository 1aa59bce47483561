#include "db/raw/shard_metadata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "util/io/files.h"

namespace db::raw {

namespace {

std::string marker_of(const std::string &dir) {
  return dir + "/meta.was_rolled";
}

}  // namespace

bool shard_metadata_impl_c::check_exists(const std::string &dir) const {
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool shard_metadata_impl_c::check_was_rolled(const std::string &dir) const {
  return access(marker_of(dir).c_str(), F_OK) == 0;
}

bool shard_metadata_impl_c::set_was_rolled(const std::string &dir, bool value) const {
  const std::string marker = marker_of(dir);
  if (check_was_rolled(dir) == value) return true;
  bool changed;
  if (value) {
    const int fd = open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    changed = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) close(fd);
  } else {
    int result;
    while ((result = unlink(marker.c_str())) != 0 && errno == EINTR) {
    }
    changed = result == 0;
  }
  if (!changed) {
    krel_log(krel_error, "cannot %s %s: %s\n", value ? "make" : "remove", marker.c_str(), strerror(errno));
    return false;
  }
  return !util::io::system_files().sync_directory(dir);
}

}  // namespace db::raw
