#pragma once
// A run of cells of one metric as a file or as bytes in memory: a header, then one record of 32 bytes a slot
// (docs/formats/nnt1.md). What nodes hand each other. Times here are seconds.
//
// Handles belong to one thread at a time; a read-fast view may be read by several. Calls on files block. Files
// and memory may come from anywhere: what they hold is checked before it is used, except that a mapped file
// must not be cut short while it is read.

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "libvelmar/nnt/nnt_multitype.h"

constexpr char NNT_VERSION_1[] = "NNT1";
constexpr uint64_t NNT_EPOCH_LIMIT = 5'000'000'000;  // epochs lie below

struct nnt_hdr {
  char version[4];  // not terminated
  uint32_t period;
  uint64_t epoch;  // time of the first slot, a multiple of period
};
static_assert(sizeof(nnt_hdr) == 16);

struct nnt_datum_v1 {
  uint8_t xor_chksum;  // of the other 31 bytes
  uint8_t typeinfo;    // bits 0-2: nnt_type_t; bit 3: there is no stddev
  uint16_t count;
  float stddev;
  nnt_value_t value;
  struct {
    float value, stddev;
  } derivative, counter;
};
static_assert(sizeof(nnt_datum_v1) == 32);

struct nnt_opset;

struct nnt_handle {
  int fd;
  bool dirty;
  bool sync_on_close;
  nnt_hdr hdr;
  const nnt_opset *opset;
  void *op_ctx;
};

// A read-only view of a whole image.
struct nnt_handle_readfast {
  const uint8_t *addr;
  size_t len;
  nnt_hdr hdr;
  const nnt_opset *opset;
  void *op_ctx;
  void (*dealloc)(nnt_handle_readfast *);  // null: the memory is the caller's
};

// Part of an image, ready to be written out as one: the header, then the data.
struct nnt_range_raw_data {
  uint64_t original_epoch, original_apocalypse;  // of the image
  uint32_t datapoints;
  nnt_hdr *new_hdr;  // the caller's to free()
  int data_size;
  const uint8_t *data;  // in the view
};

// The operations of one version of the format. Results are -1 for an error unless stated otherwise.
struct nnt_opset {
  int (*init)(nnt_handle *);
  void (*close)(nnt_handle *);
  // 1 with the cell; a slot outside of the image is an empty cell. -1: a damaged record.
  int (*get)(nnt_handle *, uint64_t t, nnt_multitype *cell);
  // Fills all of them; a damaged record is an empty cell. Returns `count`.
  ssize_t (*get_range)(nnt_handle *, uint64_t start, size_t count, nnt_multitype *cells);
  int (*get_raw_range)(const nnt_handle_readfast *, uint64_t start, uint64_t count, nnt_range_raw_data *out);
  int (*put)(nnt_handle *, uint64_t t, const nnt_multitype *cell);
  ssize_t (*put_range)(nnt_handle *, uint64_t start, size_t count, const nnt_multitype *cells);
  // Writes the image with an earlier epoch to `fd`.
  int (*rewind_epoch)(nnt_handle *, uint64_t new_epoch, int fd);
  // Copies all records of src over those of dst. *error (where given) is the caller's to free().
  int (*merge)(nnt_handle *dst, nnt_handle *src, char **error);
  int (*init_readfast)(nnt_handle_readfast *);
  void (*uninit_readfast)(nnt_handle_readfast *);
  int (*getfast)(const nnt_handle_readfast *, uint64_t t, nnt_multitype *cell);
  uint64_t (*getfast_apocalypse)(const nnt_handle_readfast *);
  // Copies src's records from dst's epoch on to the start of dst.
  int (*del)(nnt_handle *src, nnt_handle *dst, uint64_t t);
  uint64_t (*get_apocalypse)(nnt_handle *);  // the end of the last whole slot
  time_t (*get_create_time)(const nnt_handle *);
};
const nnt_opset *nnt_find_opset(const char version[4]);  // null: unknown

// An empty image in a file without a name, made beside `path_template`: its descriptor, or -1. A null version
// means the present one.
int nnt_create_tmp(const char *version, const char *path_template, uint64_t epoch, uint32_t period,
                   mode_t mode);
// The same as a new file at `path`: 0 or -1.
int nnt_create(const char *version, const char *path, uint64_t epoch, uint32_t period, mode_t mode);

// Takes the descriptor over, also when it fails (null, errno EIO); *error, where given, is then the caller's
// to free().
nnt_handle *nnt_open_fd_sync(int fd, bool sync_on_close, char **error);
// Cells without data become blank records, except that a write of just one is refused (-1), as is a string.
// Slots before the epoch are passed over. Returns the slots written.
ssize_t nnt_put_range(nnt_handle *h, uint64_t start, size_t count, const nnt_multitype *cells);
int nnt_close(nnt_handle *h);  // syncs first where asked to and needed; -1 when that failed

// Maps the handle's whole file; the view outlives the handle. Null on failure.
nnt_handle_readfast *nnt_acquire_readfast(nnt_handle *h);
// A view of memory that stays the caller's; null when it is no image.
nnt_handle_readfast *nnt_acquire_transient(const void *addr, size_t len);
// The same of a mapping, which goes with the view. Null: the mapping is still the caller's.
nnt_handle_readfast *nnt_acquire_transient_mmap(void *addr, size_t len);
// 1 with the cell; outside of the image it is empty. -1: a damaged record; the cell is empty too.
int nnt_get_fast(const nnt_handle_readfast *view, uint64_t t, nnt_multitype *cell);
uint64_t nnt_get_fast_epoch(const nnt_handle_readfast *view);
uint64_t nnt_get_fast_apocalypse(const nnt_handle_readfast *view);
// Up to `count` slots from `start` on, cut to the image. Copies nothing.
int nnt_get_raw_range(const nnt_handle_readfast *view, uint64_t start, uint64_t count, nnt_range_raw_data *out);
void nnt_release_readfast(nnt_handle_readfast *view);

struct nnt_release_t {
  void operator()(nnt_handle *h) const { nnt_close(h); }
  void operator()(nnt_handle_readfast *view) const { nnt_release_readfast(view); }
};
using nnt_handle_up = std::unique_ptr<nnt_handle, nnt_release_t>;
using nnt_readfast_up = std::unique_ptr<nnt_handle_readfast, nnt_release_t>;
