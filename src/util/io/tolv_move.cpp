#include "util/io/tolv_move.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/io/file_helpers.h"

namespace {

krel_log_stream_t *move_log() {
  static krel_log_stream_t *const stream = krel_log_stream_find("debug/tolv_move");
  return stream;
}

int failed(const char *step, const std::string &path) {
  const int error = errno;
  krel_log(move_log(), "%s(%s) -> %s\n", step, path.c_str(), strerror(error));
  return error;
}

class descriptor_c {
 public:
  explicit descriptor_c(int fd) : m_fd(fd) {}
  ~descriptor_c() {
    if (m_fd >= 0) close(m_fd);
  }
  descriptor_c(const descriptor_c &) = delete;
  descriptor_c &operator=(const descriptor_c &) = delete;
  int get() const { return m_fd; }
  bool close_checked() { return close(std::exchange(m_fd, -1)) == 0; }

 private:
  int m_fd;
};

bool write_all(int fd, const char *bytes, ssize_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, bytes, static_cast<size_t>(size));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    bytes += n;
    size -= n;
  }
  return true;
}

int copy_bytes(int from, int to, const std::string &from_path, const std::string &to_path) {
  std::vector<char> buffer(1 << 20);
  for (;;) {
    const ssize_t n = read(from, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return failed("read", from_path);
    if (n == 0) return 0;
    if (!write_all(to, buffer.data(), n)) return failed("write", to_path);
  }
}

// Makes `to` a whole, synced copy of `from` with its mode and times.
int copy_whole(const std::string &from, const std::string &to) {
  descriptor_c source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (source.get() < 0) return failed("open", from);
  struct stat st;
  if (fstat(source.get(), &st) != 0) return failed("fstat", from);
  if (!S_ISREG(st.st_mode)) {
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return failed("fstat", from);
  }
  descriptor_c target(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (target.get() < 0) return failed("open", to);
  if (const int error = copy_bytes(source.get(), target.get(), from, to)) return error;
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  if (fchmod(target.get(), st.st_mode & 07777) != 0) return failed("fchmod", to);
  if (futimens(target.get(), times) != 0) return failed("futimens", to);
  if (fsync(target.get()) != 0) return failed("fsync", to);
  if (!target.close_checked()) return failed("close", to);
  return 0;
}

int cross_fs_rename(const std::string &from, const std::string &to, bool copy) {
  const std::string partial = to + ".moving";
  int error = copy_whole(from, partial);
  if (!error && rename(partial.c_str(), to.c_str()) != 0) error = failed("rename", partial);
  if (error) {
    unlink(partial.c_str());
    return error;
  }
  if (const std::error_code unsynced =
          util::io::system_files().sync_directory(util::io::parent_directory(to))) {
    errno = unsynced.value();
    return failed("fsync directory", to);
  }
  if (copy) {
    krel_log(move_log(), "_cross_fs_rename: copy move, not unlinking source file %s\n", from.c_str());
    return 0;
  }
  return unlink(from.c_str()) == 0 ? 0 : failed("unlink", from);
}

int move_or_copy(const std::string &from, const std::string &to, bool copy) {
  if (const std::error_code error = util::io::mkdir_for_file(to)) {
    krel_log(move_log(), "mkdir for file(%s) -> %s\n", to.c_str(), error.message().c_str());
    return error.value();
  }
  if (copy) return cross_fs_rename(from, to, true);
  if (rename(from.c_str(), to.c_str()) == 0) return 0;
  return errno == EXDEV ? cross_fs_rename(from, to, false) : failed("rename", from);
}

struct job_t {
  std::string from, to;
  tolv_move_done_f done;
  void finish(int error) {
    if (done) done(error);
  }
};

int tolv_move_tolv_asynch_move(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *job = static_cast<job_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) job->finish(tolv_synch_move(job->from, job->to));
  if (mask == KRELEV_ASYNCH_CLEANUP) delete job;
  return 0;
}

int tolv_move_tolv_asynch_unlink(krelev_event_t, int mask, void *closure, const struct timeval *) {
  auto *job = static_cast<job_t *>(closure);
  if (mask == KRELEV_ASYNCH_WORK) job->finish(unlink(job->from.c_str()) == 0 ? 0 : failed("unlink", job->from));
  if (mask == KRELEV_ASYNCH_CLEANUP) delete job;
  return 0;
}

void queue(krelev_jobq_t *jobq, krelev_callback_t callback, std::unique_ptr<job_t> job) {
  krelev_add_asynch(jobq, krelev_alloc_asynch(callback, job.release()));
}

}  // namespace

void tolv_move_init() {
  krelev_name_callback("tolv_move_tolv_asynch_move", tolv_move_tolv_asynch_move);
  krelev_name_callback("tolv_move_tolv_asynch_unlink", tolv_move_tolv_asynch_unlink);
}

int tolv_synch_move(const std::string &from, const std::string &to) {
  return move_or_copy(from, to, false);
}

int tolv_synch_copy(const std::string &from, const std::string &to) {
  return move_or_copy(from, to, true);
}

void tolv_asynch_move(krelev_jobq_t *jobq, std::string from, std::string to, tolv_move_done_f done) {
  queue(jobq, tolv_move_tolv_asynch_move,
        std::make_unique<job_t>(job_t{std::move(from), std::move(to), std::move(done)}));
}

void tolv_asynch_unlink(krelev_jobq_t *jobq, std::string path, tolv_move_done_f done) {
  queue(jobq, tolv_move_tolv_asynch_unlink,
        std::make_unique<job_t>(job_t{std::move(path), std::string(), std::move(done)}));
}
