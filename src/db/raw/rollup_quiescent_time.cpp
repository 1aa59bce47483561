#include "db/raw/rollup_quiescent_time.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"

namespace db::raw {

namespace {

constexpr uint64_t ROUND_S = 60;
static_assert(sizeof(std::atomic<uint64_t>) == 8 && std::atomic<uint64_t>::is_always_lock_free);

uint64_t roundup_ts(uint64_t seconds) {
  return (seconds + ROUND_S - 1) / ROUND_S * ROUND_S;
}

}  // namespace

rollup_quiescent_time_c::rollup_quiescent_time_c(const std::string &directory, uint64_t now_s)
    : m_last_write_ts_file(directory + "/last_write_ts.bin") {
  const char *file = m_last_write_ts_file.c_str();
  if (util::io::mkdir_for_file(m_last_write_ts_file)) krel_fatal("Cannot create file: %s\n", file);
  const int fd = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) krel_fatal("Cannot create file: %s\n", file);
  struct stat st;
  if (fstat(fd, &st) != 0 || (st.st_size < 8 && ftruncate(fd, 8) != 0))
    krel_fatal("Cannot resize file: %s\n", file);
  void *map = mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (map == MAP_FAILED) krel_fatal("Cannot map file: %s\n", file);
  m_last_write_ts = static_cast<std::atomic<uint64_t> *>(map);
  if (m_last_write_ts->load() <= 1) {
    m_last_write_ts->store(now_s);
    m_new_shard = true;
  }
}

rollup_quiescent_time_c::~rollup_quiescent_time_c() {
  munmap(static_cast<void *>(m_last_write_ts), 8);
}

void rollup_quiescent_time_c::set_last_write_ts(uint64_t now_s) {
  if (m_last_write_ts->load(std::memory_order_relaxed) < now_s) m_last_write_ts->exchange(roundup_ts(now_s));
}

}  // namespace db::raw
