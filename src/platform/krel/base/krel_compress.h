#pragma once
// Streaming gzip and LZ4-frame coders by the names of HTTP content codings, and one-shot LZ4 frames.
// A context belongs to one thread at a time and may be initialised again for another stream.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

enum krel_compress_type_e : int {
  KREL_COMPRESS_NONE = 0,  // bytes pass through
  KREL_COMPRESS_LZ4F = 1,
  KREL_COMPRESS_GZIP = 2,
};

// "gzip", "x-gzip", "lz4f", "identity" and "" in any case; false for any other name.
bool krel_compress_type_parse(std::string_view content_coding, krel_compress_type_e *type);
const char *krel_compress_type_name(krel_compress_type_e type);  // "gzip", "lz4f", "identity"

// ---- decoding
struct krel_stream_decompress_ctx_t;
krel_stream_decompress_ctx_t *krel_create_stream_decompress_ctx();
void krel_destroy_stream_decompress_ctx(krel_stream_decompress_ctx_t *ctx);  // null is allowed
// Begins a stream. 0, or -1 when out of memory.
int krel_stream_decompress_init(krel_stream_decompress_ctx_t *ctx, krel_compress_type_e type);
// Decodes from `in` into `out`. *in_size comes in as the bytes there are and goes out as the bytes
// taken; *out_size comes in as the room and goes out as the bytes written, never more. Several gzip
// members or LZ4 frames one after another are one stream.
// 0 on success, -1 when the input is corrupt (the stream stays failed; output before it is good).
// Output can be waiting inside: call again, if need be with *in_size 0, while the room comes back full.
int krel_stream_decompress(krel_stream_decompress_ctx_t *ctx, const void *in, size_t *in_size, void *out,
                           size_t *out_size);
// The input has ended. 0 when it ended where a member or frame ends (or held nothing), else -1.
int krel_stream_decompress_finish(krel_stream_decompress_ctx_t *ctx);

// ---- encoding
struct krel_stream_compress_ctx_t;
krel_stream_compress_ctx_t *krel_create_stream_compress_ctx();
void krel_destroy_stream_compress_ctx(krel_stream_compress_ctx_t *ctx);  // null is allowed
int krel_stream_compress_init(krel_stream_compress_ctx_t *ctx, krel_compress_type_e type);
// Sizes as in krel_stream_decompress. 0, or -1 on failure. All input has been taken and nothing waits
// to be written once *in_size is what came in and *out_size is below the room.
int krel_stream_compress(krel_stream_compress_ctx_t *ctx, const void *in, size_t *in_size, void *out,
                         size_t *out_size);
// Makes everything taken so far decodable by the receiver: 1 call again with room, 0 done, -1 failed.
int krel_stream_compress_flush(krel_stream_compress_ctx_t *ctx, void *out, size_t *out_size);
// Ends the stream: 1 call again with room, 0 done, -1 failed.
int krel_stream_compress_finish(krel_stream_compress_ctx_t *ctx, void *out, size_t *out_size);

// One LZ4 frame with content size and checksum, appended to *out. False when it cannot be made.
bool krel_compress_lz4f(const void *bytes, size_t length, std::string *out);

struct krel_stream_ctx_deleter_t {
  void operator()(krel_stream_decompress_ctx_t *ctx) const { krel_destroy_stream_decompress_ctx(ctx); }
  void operator()(krel_stream_compress_ctx_t *ctx) const { krel_destroy_stream_compress_ctx(ctx); }
};
using krel_stream_decompress_ptr = std::unique_ptr<krel_stream_decompress_ctx_t, krel_stream_ctx_deleter_t>;
using krel_stream_compress_ptr = std::unique_ptr<krel_stream_compress_ctx_t, krel_stream_ctx_deleter_t>;
