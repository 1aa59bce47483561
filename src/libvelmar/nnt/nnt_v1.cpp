#include "libvelmar/nnt/nnt_v1.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/krel/base/krel_log.h"

namespace {

constexpr size_t COPY_BYTES = 256 * 1024;

struct context_t {
  time_t create_time;
  uint64_t data_offset;
};

uint64_t place(uint64_t slot) {
  return NNT_V1_DATA_OFFSET + slot * NNT_V1_RECORD;
}
// Whether so many slots from there on have places in a file at all.
bool has_place(uint64_t slot, uint64_t count) {
  constexpr uint64_t MOST = (INT64_MAX - NNT_V1_DATA_OFFSET) / NNT_V1_RECORD;
  return slot <= MOST && count <= MOST - slot;
}

uint64_t slots_of_file(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_size > 0 ? nnt_v1_slots(static_cast<uint64_t>(st.st_size)) : 0;
}

int v1_init(nnt_handle *h) {
  struct stat st;
  int result;
  do {
    result = fstat(h->fd, &st);
  } while (result != 0 && errno == EINTR);
  h->op_ctx = new context_t{result == 0 ? st.st_atime : time(nullptr), NNT_V1_DATA_OFFSET};
  return 0;
}

void v1_close(nnt_handle *h) {
  delete static_cast<context_t *>(h->op_ctx);
  h->op_ctx = nullptr;
}

int v1_get(nnt_handle *h, uint64_t t, nnt_multitype *cell) {
  *cell = nnt_multitype{};
  if (t < h->hdr.epoch) return 1;
  const uint64_t slot = nnt_v1_slot(h->hdr, t);
  if (!has_place(slot, 1)) return 1;
  uint8_t record[NNT_V1_RECORD];
  const ssize_t got = nnt_pread(h->fd, record, sizeof record, place(slot));
  if (got == 0) return 1;
  return got == static_cast<ssize_t>(sizeof record) && nnt_v1_decode(record, cell) ? 1 : -1;
}

// How many of the slots from `start` on lie before the epoch.
size_t slots_before(const nnt_hdr &hdr, uint64_t start, size_t count) {
  if (start >= hdr.epoch) return 0;
  return static_cast<size_t>(std::min<uint64_t>(count, (hdr.epoch - start - 1) / hdr.period + 1));
}

ssize_t v1_get_range(nnt_handle *h, uint64_t start, size_t count, nnt_multitype *cells) {
  std::fill_n(cells, count, nnt_multitype{});
  const size_t skipped = slots_before(h->hdr, start, count);
  const uint64_t slot = skipped ? 0 : nnt_v1_slot(h->hdr, start);
  const uint64_t slots = slots_of_file(h->fd);
  if (skipped == count || slot > slots) return static_cast<ssize_t>(count);
  // one record more than there are, so that a torn one shows
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(count - skipped, slots - slot + 1));
  std::vector<uint8_t> records(wanted * NNT_V1_RECORD);
  const ssize_t got = nnt_pread(h->fd, records.data(), records.size(), place(slot));
  if (got < 0 || got % static_cast<ssize_t>(NNT_V1_RECORD) != 0) return -1;
  for (size_t i = 0; i < static_cast<size_t>(got) / NNT_V1_RECORD; i++)
    nnt_v1_decode(records.data() + i * NNT_V1_RECORD, &cells[skipped + i]);
  return static_cast<ssize_t>(count);
}

ssize_t v1_put_range(nnt_handle *h, uint64_t start, size_t count, const nnt_multitype *cells) {
  const size_t skipped = slots_before(h->hdr, start, count), rest = count - skipped;
  if (rest == 0) return 0;
  if (count == 1 && cells->type == NNT_TYPE_ABSENT) return -1;
  const uint64_t slot = skipped ? 0 : nnt_v1_slot(h->hdr, start);
  if (!has_place(slot, rest)) return -1;
  std::vector<nnt_datum_v1> records(rest);
  for (size_t i = 0; i < rest; i++)
    if (!nnt_v1_encode(cells[skipped + i], &records[i])) return -1;
  const ssize_t put = nnt_pwrite(h->fd, records.data(), rest * NNT_V1_RECORD, place(slot));
  if (put < 0 || put % static_cast<ssize_t>(NNT_V1_RECORD) != 0) return -1;
  return put / static_cast<ssize_t>(NNT_V1_RECORD);
}

int v1_put(nnt_handle *h, uint64_t t, const nnt_multitype *cell) {
  return v1_put_range(h, t, 1, cell) < 0 ? -1 : 0;
}

// The records of `from` from a place on, to a place in `to`. Holes may become zeros.
int copy_records(int from, uint64_t from_offset, int to, uint64_t to_offset, char **error) {
  const auto fail = [&](const char *text) {
    if (error) *error = strdup(text);
    return -1;
  };
  std::vector<uint8_t> buffer(COPY_BYTES);
  for (;;) {
    const ssize_t got = nnt_pread(from, buffer.data(), buffer.size(), from_offset);
    if (got < 0) return fail(strerror(errno));
    if (got == 0) return 0;
    const ssize_t put = nnt_pwrite(to, buffer.data(), static_cast<size_t>(got), to_offset);
    if (put < 0) return fail(strerror(errno));
    if (put != got) return fail("short write");
    from_offset += static_cast<uint64_t>(got);
    to_offset += static_cast<uint64_t>(got);
  }
}

int v1_rewind_epoch(nnt_handle *h, uint64_t new_epoch, int fd) {
  if (new_epoch >= h->hdr.epoch) return -1;
  nnt_hdr hdr = h->hdr;
  hdr.epoch = new_epoch - new_epoch % hdr.period;
  if (nnt_pwrite(fd, &hdr, sizeof hdr, 0) != static_cast<ssize_t>(sizeof hdr)) return -1;
  return copy_records(h->fd, NNT_V1_DATA_OFFSET, fd, place(nnt_v1_slot(hdr, h->hdr.epoch)), nullptr);
}

int v1_merge(nnt_handle *dst, nnt_handle *src, char **error) {
  const uint64_t slot = src->hdr.epoch < dst->hdr.epoch ? 0 : nnt_v1_slot(dst->hdr, src->hdr.epoch);
  if (dst->opset != src->opset || dst->hdr.period != src->hdr.period || dst->hdr.epoch > src->hdr.epoch ||
      !has_place(slot, slots_of_file(src->fd))) {
    if (error) *error = strdup(strerror(EINVAL));
    return -1;
  }
  dst->dirty = true;
  return copy_records(src->fd, NNT_V1_DATA_OFFSET, dst->fd, place(slot), error);
}

int v1_del(nnt_handle *src, nnt_handle *dst, uint64_t) {
  if (dst->hdr.epoch < src->hdr.epoch || dst->hdr.period != src->hdr.period) return -1;
  const uint64_t slot = nnt_v1_slot(src->hdr, dst->hdr.epoch);
  if (!has_place(slot, 0)) return -1;
  dst->dirty = true;
  return copy_records(src->fd, place(slot), dst->fd, NNT_V1_DATA_OFFSET, nullptr);
}

uint64_t v1_get_apocalypse(nnt_handle *h) {
  return nnt_v1_end(h->hdr, slots_of_file(h->fd));
}

time_t v1_get_create_time(const nnt_handle *h) {
  return static_cast<const context_t *>(h->op_ctx)->create_time;
}

// ---- views

int v1_init_readfast(nnt_handle_readfast *view) {
  view->op_ctx = nullptr;
  return 0;
}

void v1_uninit_readfast(nnt_handle_readfast *) {}

int v1_getfast(const nnt_handle_readfast *view, uint64_t t, nnt_multitype *cell) {
  *cell = nnt_multitype{};
  if (t < view->hdr.epoch) return 1;
  const uint64_t slot = nnt_v1_slot(view->hdr, t);
  if (slot >= nnt_v1_slots(view->len)) return 1;
  return nnt_v1_decode(view->addr + place(slot), cell) ? 1 : -1;
}

uint64_t v1_getfast_apocalypse(const nnt_handle_readfast *view) {
  return nnt_v1_end(view->hdr, nnt_v1_slots(view->len));
}

int v1_get_raw_range(const nnt_handle_readfast *view, uint64_t start, uint64_t count, nnt_range_raw_data *out) {
  *out = nnt_range_raw_data{};
  out->original_epoch = view->hdr.epoch;
  out->original_apocalypse = v1_getfast_apocalypse(view);
  out->new_hdr = static_cast<nnt_hdr *>(malloc(sizeof(nnt_hdr)));
  krel_assert(out->new_hdr);
  *out->new_hdr = view->hdr;
  start = std::max(start, view->hdr.epoch);
  const uint64_t slot = nnt_v1_slot(view->hdr, start), slots = nnt_v1_slots(view->len);
  if (slot >= slots) return 0;
  out->new_hdr->epoch = start;
  out->data = view->addr + place(slot);
  out->datapoints = static_cast<uint32_t>(std::min({count, slots - slot, INT_MAX / NNT_V1_RECORD}));
  out->data_size = static_cast<int>(out->datapoints * NNT_V1_RECORD);
  return 0;
}

}  // namespace

const nnt_opset nnt_opset_v1 = {
    v1_init,
    v1_close,
    v1_get,
    v1_get_range,
    v1_get_raw_range,
    v1_put,
    v1_put_range,
    v1_rewind_epoch,
    v1_merge,
    v1_init_readfast,
    v1_uninit_readfast,
    v1_getfast,
    v1_getfast_apocalypse,
    v1_del,
    v1_get_apocalypse,
    v1_get_create_time,
};

uint64_t nnt_v1_end(const nnt_hdr &hdr, uint64_t slots) {
  uint64_t length, end;
  if (__builtin_mul_overflow(slots, uint64_t{hdr.period}, &length) ||
      __builtin_add_overflow(hdr.epoch, length, &end))
    return UINT64_MAX;
  return end;
}

ssize_t nnt_pread(int fd, void *bytes, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got =
        pread(fd, static_cast<char *>(bytes) + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

ssize_t nnt_pwrite(int fd, const void *bytes, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t put =
        pwrite(fd, static_cast<const char *>(bytes) + done, size - done, static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return done ? static_cast<ssize_t>(done) : -1;
    if (put == 0) break;
    done += static_cast<size_t>(put);
  }
  return static_cast<ssize_t>(done);
}
