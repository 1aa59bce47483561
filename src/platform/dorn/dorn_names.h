#pragma once
// Metric names: base|ST[category:value,...]|MT{...}, UTF-8 without control characters.
// Canonical form: tags in bytewise order of their encoded text, equal tags once, no blanks around
// them, no empty ST block, measurement blocks (kept letter for letter) behind the stream tags.
// Nothing here allocates; every function is safe from any thread.

#include <sys/types.h>

#include <cstddef>

constexpr size_t DORN_METRIC_NAME_BUFFER = 4096;  // holds every canonical name and its terminator
constexpr size_t DORN_METRIC_NAME_MAX = DORN_METRIC_NAME_BUFFER - 1;
constexpr size_t DORN_TAG_MAX_CATEGORY_LEN = 126;  // encoded, without the ":"
constexpr size_t DORN_TAG_MAX_PAIR_LEN = 1024;     // encoded category, ":" and value

// Negative results of the functions below.
enum dorn_name_error_e : int {
  DORN_NAME_UNCLEAN = -1,       // not UTF-8, or a control character
  DORN_NAME_BAD_BLOCK = -2,     // a second tag block, or "|ST[" that opens no block at the end of the name
  DORN_NAME_BAD_TAG = -3,       // a tag without ":", an empty category, a broken b"..." form
  DORN_NAME_TAG_TOO_LONG = -4,  // see the maxima above; they count for the canonical form
};

// Writes the canonical form of in[0, in_len) and gives its length, or a dorn_name_error_e. As with
// snprintf a length >= out_size means that it did not fit, and out is then worthless; so it is with
// input of 8 KiB and more, whatever it holds. Idempotent. in and out must not overlap.
// terminate: a NUL follows, which needs room too. with_measurements false: MT blocks are left out.
// without_tags: the tag block is checked, then left out.
ssize_t dorn_metric_canonicalize_ex(const char *in, size_t in_len, char *out, size_t out_size, bool terminate,
                                    bool with_measurements, bool without_tags);

// The same for the text between "ST[" and "]" alone: "b:c, a:x" gives "a:x,b:c".
ssize_t dorn_metric_tags_canonical(const char *tags, size_t tags_len, char *out, size_t out_size,
                                   bool terminate);

// UTF-8 without control characters and not over DORN_METRIC_NAME_MAX; the empty name is clean.
bool dorn_metric_name_is_clean(const char *name, size_t name_len);

// A name cut at its blocks, by the rules of canonicalisation; all views into the name.
struct dorn_name_parts_t {
  size_t base_len;     // the name before its first block
  bool has_tags;       // an ST block stands in the name
  size_t tags_offset;  // of the text between "ST[" and "]"
  size_t tags_len;
};
// 0, or DORN_NAME_BAD_BLOCK. The bytes are not checked otherwise.
int dorn_metric_name_split(const char *name, size_t name_len, dorn_name_parts_t *parts);
