#include "libvelmar/nnt/nnt.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libvelmar/nnt/nnt_v1.h"

namespace {

std::atomic<unsigned> temporary_files{0};

// The version of a new image; null when it is not known or the times do not fit.
const char *version_to_write(const char *version, uint64_t epoch, uint32_t period) {
  if (!version) version = NNT_VERSION_1;
  const bool is_known = strlen(version) == sizeof(nnt_hdr::version) && nnt_find_opset(version);
  return is_known && period && epoch % period == 0 ? version : nullptr;
}

bool write_header(int fd, const char *version, uint64_t epoch, uint32_t period) {
  nnt_hdr hdr{};
  memcpy(hdr.version, version, sizeof hdr.version);
  hdr.period = period;
  hdr.epoch = epoch;
  return nnt_pwrite(fd, &hdr, sizeof hdr, 0) == static_cast<ssize_t>(sizeof hdr);
}

// What is wrong with a header, or null.
const char *header_fault(const nnt_hdr &hdr) {
  if (!nnt_find_opset(hdr.version)) return "unknown version";
  if (hdr.period == 0) return "invalid period";
  if (hdr.epoch % hdr.period != 0) return "epoch misaligned";
  if (hdr.epoch >= NNT_EPOCH_LIMIT) return "bad epoch";
  return nullptr;
}

nnt_handle_readfast *make_view(const void *addr, size_t len, const nnt_hdr &hdr,
                               void (*dealloc)(nnt_handle_readfast *)) {
  auto *view = new nnt_handle_readfast{static_cast<const uint8_t *>(addr), len,     hdr,
                                       nnt_find_opset(hdr.version),        nullptr, dealloc};
  if (view->opset->init_readfast(view) == 0) return view;
  delete view;
  return nullptr;
}

nnt_handle_readfast *view_of_memory(const void *addr, size_t len, void (*dealloc)(nnt_handle_readfast *)) {
  nnt_hdr hdr;
  if (len < sizeof hdr) return nullptr;
  memcpy(&hdr, addr, sizeof hdr);
  // the other rules of a header do no harm to a reader of memory
  return nnt_find_opset(hdr.version) && hdr.period ? make_view(addr, len, hdr, dealloc) : nullptr;
}

void unmap(nnt_handle_readfast *view) {
  munmap(const_cast<uint8_t *>(view->addr), view->len);
}

}  // namespace

const nnt_opset *nnt_find_opset(const char version[4]) {
  return memcmp(version, NNT_VERSION_1, sizeof(nnt_hdr::version)) == 0 ? &nnt_opset_v1 : nullptr;
}

int nnt_create_tmp(const char *version, const char *path_template, uint64_t epoch, uint32_t period,
                   mode_t mode) {
  version = version_to_write(version, epoch, period);
  if (!version) return -1;
  std::string path = fmt::format("{}_{:x}_XXXXXX", path_template, temporary_files++);
  const int fd = mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) return -1;
  unlink(path.c_str());
  if (fchmod(fd, mode) == 0 && write_header(fd, version, epoch, period)) return fd;
  close(fd);
  return -1;
}

int nnt_create(const char *version, const char *path, uint64_t epoch, uint32_t period, mode_t mode) {
  version = version_to_write(version, epoch, period);
  if (!version) return -1;
  int fd;
  do {
    fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  const bool ok = write_header(fd, version, epoch, period);
  if (!ok) unlink(path);
  close(fd);
  return ok ? 0 : -1;
}

nnt_handle *nnt_open_fd_sync(int fd, bool sync_on_close, char **error) {
  nnt_hdr hdr;
  const char *fault = nullptr;
  if (nnt_pread(fd, &hdr, sizeof hdr, 0) != static_cast<ssize_t>(sizeof hdr))
    fault = "could not read header";
  else
    fault = header_fault(hdr);
  if (!fault) {
    auto *h = new nnt_handle{fd, false, sync_on_close, hdr, nnt_find_opset(hdr.version), nullptr};
    if (h->opset->init(h) == 0) return h;
    delete h;
    fault = "initialization failed";
  }
  if (fd >= 0) close(fd);
  if (error) *error = strdup(fault);
  errno = EIO;
  return nullptr;
}

ssize_t nnt_put_range(nnt_handle *h, uint64_t start, size_t count, const nnt_multitype *cells) {
  h->dirty = true;
  return h->opset->put_range(h, start, count, cells);
}

int nnt_close(nnt_handle *h) {
  int result = 0;
  if (h->sync_on_close && h->dirty) {
    do {
      result = fsync(h->fd);
    } while (result != 0 && errno == EINTR);
  }
  h->opset->close(h);
  close(h->fd);
  delete h;
  return result;
}

nnt_handle_readfast *nnt_acquire_readfast(nnt_handle *h) {
  struct stat st;
  if (fstat(h->fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof(nnt_hdr))) return nullptr;
  const auto len = static_cast<size_t>(st.st_size);
  void *addr = mmap(nullptr, len, PROT_READ, MAP_SHARED, h->fd, 0);
  if (addr == MAP_FAILED) return nullptr;
  nnt_handle_readfast *view = make_view(addr, len, h->hdr, unmap);
  if (!view) munmap(addr, len);
  return view;
}

nnt_handle_readfast *nnt_acquire_transient(const void *addr, size_t len) {
  return view_of_memory(addr, len, nullptr);
}

nnt_handle_readfast *nnt_acquire_transient_mmap(void *addr, size_t len) {
  return view_of_memory(addr, len, unmap);
}

int nnt_get_fast(const nnt_handle_readfast *view, uint64_t t, nnt_multitype *cell) {
  return view->opset->getfast(view, t, cell);
}

uint64_t nnt_get_fast_epoch(const nnt_handle_readfast *view) {
  return view->hdr.epoch;
}

uint64_t nnt_get_fast_apocalypse(const nnt_handle_readfast *view) {
  return view->opset->getfast_apocalypse(view);
}

int nnt_get_raw_range(const nnt_handle_readfast *view, uint64_t start, uint64_t count,
                      nnt_range_raw_data *out) {
  return view->opset->get_raw_range(view, start, count, out);
}

void nnt_release_readfast(nnt_handle_readfast *view) {
  if (!view) return;
  view->opset->uninit_readfast(view);
  if (view->dealloc) view->dealloc(view);
  delete view;
}
