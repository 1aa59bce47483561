// Any bytes as an image, as a file and in memory: refused, or read without leaving them; both ways agree.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "libvelmar/nnt/nnt.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

void read_raw(const nnt_handle_readfast *view, uint64_t start, uint64_t count, size_t size) {
  nnt_range_raw_data out;
  check(nnt_get_raw_range(view, start, count, &out) == 0);
  check(out.data_size >= 0 && out.data_size == static_cast<int>(out.datapoints * 32) &&
        out.datapoints <= count);
  if (out.data_size) {
    check(static_cast<size_t>(out.data_size) <= size - 16);
    std::vector<uint8_t> image(16 + static_cast<size_t>(out.data_size));
    memcpy(image.data(), out.new_hdr, 16);
    memcpy(image.data() + 16, out.data, static_cast<size_t>(out.data_size));
    const nnt_readfast_up part(nnt_acquire_transient(image.data(), image.size()));
    nnt_multitype a, b;
    check(nnt_get_fast(part.get(), out.new_hdr->epoch, &a) == nnt_get_fast(view, out.new_hdr->epoch, &b));
    check(memcmp(&a, &b, sizeof a) == 0);
  }
  free(out.new_hdr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // the first bytes say where to read
  uint64_t at = 0;
  uint16_t count = 0;
  if (size < sizeof at + sizeof count) return 0;
  memcpy(&at, data, sizeof at);
  memcpy(&count, data + sizeof at, sizeof count);
  count %= 4096;
  const std::vector<uint8_t> image(data + sizeof at + sizeof count, data + size);

  const nnt_readfast_up view(nnt_acquire_transient(image.data(), image.size()));
  if (view) {
    const uint64_t epoch = nnt_get_fast_epoch(view.get()), end = nnt_get_fast_apocalypse(view.get());
    check(end >= epoch || end == UINT64_MAX);
    for (const uint64_t t : {at, epoch, epoch + at % 100'000, end - 1, end, UINT64_MAX}) {
      nnt_multitype cell;
      const int result = nnt_get_fast(view.get(), t, &cell);
      check(result == 1 || (result == -1 && cell.type == NNT_TYPE_ABSENT));
      read_raw(view.get(), t, count, image.size());
    }
  }

  const int fd = memfd_create("nnt", MFD_CLOEXEC);
  check(write(fd, image.data(), image.size()) == static_cast<ssize_t>(image.size()));
  const nnt_handle_up h(nnt_open_fd_sync(fd, false, nullptr));
  if (!h) return 0;
  check(view != nullptr);
  check(h->opset->get_apocalypse(h.get()) == nnt_get_fast_apocalypse(view.get()));
  const nnt_readfast_up mapped(nnt_acquire_readfast(h.get()));
  std::vector<nnt_multitype> cells(count);
  for (const uint64_t t : {at, h->hdr.epoch + at % 100'000}) {
    const bool ok = h->opset->get_range(h.get(), t, count, cells.data()) == count;
    for (size_t i = 0; i < count; i++) {
      const uint64_t time = t + i * h->hdr.period;
      nnt_multitype fast, plain;
      const int result = nnt_get_fast(mapped.get(), time, &fast);
      if (time < t) break;
      if (ok) check(memcmp(&fast, &cells[i], sizeof fast) == 0);
      if (h->opset->get(h.get(), time, &plain) == 1)
        check(result == 1 && memcmp(&fast, &plain, sizeof fast) == 0);
    }
  }
  return 0;
}
