#pragma once
// Inside of the format "NNT1": records, places, and system calls that are not cut short.

#include <cstdint>

#include "libvelmar/nnt/nnt.h"

constexpr uint64_t NNT_V1_DATA_OFFSET = sizeof(nnt_hdr);
constexpr uint64_t NNT_V1_RECORD = sizeof(nnt_datum_v1);

extern const nnt_opset nnt_opset_v1;

// False: the cell cannot be stored (a string).
bool nnt_v1_encode(const nnt_multitype &cell, nnt_datum_v1 *out);
// False: damaged; the cell is then empty.
bool nnt_v1_decode(const void *record, nnt_multitype *cell);

// Whole records in `len` bytes of image.
inline uint64_t nnt_v1_slots(uint64_t len) {
  return len < NNT_V1_DATA_OFFSET ? 0 : (len - NNT_V1_DATA_OFFSET) / NNT_V1_RECORD;
}
// The slot of a time that is not before the epoch.
inline uint64_t nnt_v1_slot(const nnt_hdr &hdr, uint64_t t) {
  return t / hdr.period - hdr.epoch / hdr.period;
}
// The end of the last slot; the largest time when that is beyond it.
uint64_t nnt_v1_end(const nnt_hdr &hdr, uint64_t slots);

// Retry on EINTR and go on behind a short transfer. Bytes transferred, or -1; fewer than asked for: the end of
// the file, the full disk.
ssize_t nnt_pread(int fd, void *bytes, size_t size, uint64_t offset);
ssize_t nnt_pwrite(int fd, const void *bytes, size_t size, uint64_t offset);
