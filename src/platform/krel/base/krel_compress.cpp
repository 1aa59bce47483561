#include "platform/krel/base/krel_compress.h"

#include <lz4frame.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

namespace {

struct coding_t {
  std::string_view name;
  krel_compress_type_e type;
};
constexpr coding_t CODINGS[] = {{"gzip", KREL_COMPRESS_GZIP},
                                {"lz4f", KREL_COMPRESS_LZ4F},
                                {"identity", KREL_COMPRESS_NONE},
                                {"x-gzip", KREL_COMPRESS_GZIP},
                                {"", KREL_COMPRESS_NONE}};

constexpr int GZIP_WINDOW = 15 + 16;  // the largest window, gzip wrapper only
constexpr int GZIP_LEVEL = 1;         // answers are encoded as they are made: speed before size
constexpr size_t LZ4_PIECE = 64 * 1024;
constexpr size_t GZIP_PIECE = 16 * 1024;

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

uInt zlib_size(size_t size) {
  return static_cast<uInt>(std::min<size_t>(size, UINT_MAX));
}

LZ4F_preferences_t lz4_preferences() {
  LZ4F_preferences_t preferences = {};
  preferences.frameInfo.blockSizeID = LZ4F_max64KB;
  preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
  return preferences;
}

// What both directions share: bytes that pass through unchanged.
void pass(const void *in, size_t *in_size, void *out, size_t *out_size) {
  const size_t size = std::min(*in_size, *out_size);
  if (size != 0) memcpy(out, in, size);
  *in_size = *out_size = size;
}

}  // namespace

bool krel_compress_type_parse(std::string_view content_coding, krel_compress_type_e *type) {
  for (const coding_t &coding : CODINGS) {
    const bool same = std::equal(coding.name.begin(), coding.name.end(), content_coding.begin(),
                                 content_coding.end(), [](char a, char b) { return a == lower(b); });
    if (!same) continue;
    *type = coding.type;
    return true;
  }
  return false;
}

const char *krel_compress_type_name(krel_compress_type_e type) {
  for (const coding_t &coding : CODINGS)
    if (coding.type == type) return coding.name.data();
  return "identity";
}

// ---- decoding

struct krel_stream_decompress_ctx_t {
  krel_compress_type_e m_type = KREL_COMPRESS_NONE;
  bool m_failed = false;
  bool m_inside = false;  // a member or frame has begun and not ended
  z_stream m_zlib = {};
  bool m_zlib_ready = false;
  LZ4F_dctx *m_lz4 = nullptr;

  krel_stream_decompress_ctx_t() = default;
  krel_stream_decompress_ctx_t(const krel_stream_decompress_ctx_t &) = delete;
  krel_stream_decompress_ctx_t &operator=(const krel_stream_decompress_ctx_t &) = delete;
  ~krel_stream_decompress_ctx_t() {
    if (m_zlib_ready) inflateEnd(&m_zlib);
    LZ4F_freeDecompressionContext(m_lz4);
  }

  bool begin();
  bool gunzip(const void *in, size_t *in_size, void *out, size_t *out_size);
  bool unlz4(const void *in, size_t *in_size, void *out, size_t *out_size);
};

bool krel_stream_decompress_ctx_t::begin() {
  m_failed = m_inside = false;
  if (m_type == KREL_COMPRESS_GZIP) {
    if (m_zlib_ready) return inflateReset(&m_zlib) == Z_OK;
    m_zlib_ready = inflateInit2(&m_zlib, GZIP_WINDOW) == Z_OK;
    return m_zlib_ready;
  }
  if (m_type == KREL_COMPRESS_LZ4F) {
    if (m_lz4 == nullptr) return !LZ4F_isError(LZ4F_createDecompressionContext(&m_lz4, LZ4F_VERSION));
    LZ4F_resetDecompressionContext(m_lz4);
  }
  return true;
}

bool krel_stream_decompress_ctx_t::gunzip(const void *in, size_t *in_size, void *out, size_t *out_size) {
  const size_t input = *in_size, room = *out_size;
  size_t taken = 0, written = 0;
  bool good = true;
  while (written < room && (taken < input || m_inside)) {
    m_zlib.next_in = static_cast<Bytef *>(const_cast<void *>(in)) + taken;
    m_zlib.avail_in = zlib_size(input - taken);
    m_zlib.next_out = static_cast<Bytef *>(out) + written;
    m_zlib.avail_out = zlib_size(room - written);
    const uInt had_in = m_zlib.avail_in, had_out = m_zlib.avail_out;
    m_inside = true;
    const int result = inflate(&m_zlib, Z_NO_FLUSH);
    taken += had_in - m_zlib.avail_in;
    written += had_out - m_zlib.avail_out;
    if (result == Z_STREAM_END) {
      m_inside = false;
      inflateReset(&m_zlib);
    } else if (result == Z_BUF_ERROR) {
      break;  // it wants more input
    } else if (result != Z_OK) {
      good = false;
      break;
    }
  }
  *in_size = taken;
  *out_size = written;
  return good;
}

bool krel_stream_decompress_ctx_t::unlz4(const void *in, size_t *in_size, void *out, size_t *out_size) {
  const size_t input = *in_size, room = *out_size;
  size_t taken = 0, written = 0;
  bool good = true;
  while (written < room && (taken < input || m_inside)) {
    size_t used = input - taken, made = room - written;
    const size_t result = LZ4F_decompress(m_lz4, static_cast<char *>(out) + written, &made,
                                          static_cast<const char *>(in) + taken, &used, nullptr);
    if (LZ4F_isError(result)) {
      good = false;
      break;
    }
    taken += used;
    written += made;
    m_inside = result != 0;
    if (used == 0 && made == 0) break;
  }
  *in_size = taken;
  *out_size = written;
  return good;
}

krel_stream_decompress_ctx_t *krel_create_stream_decompress_ctx() {
  return std::make_unique<krel_stream_decompress_ctx_t>().release();
}

void krel_destroy_stream_decompress_ctx(krel_stream_decompress_ctx_t *ctx) {
  std::unique_ptr<krel_stream_decompress_ctx_t>{ctx};
}

int krel_stream_decompress_init(krel_stream_decompress_ctx_t *ctx, krel_compress_type_e type) {
  ctx->m_type = type;
  return ctx->begin() ? 0 : -1;
}

int krel_stream_decompress(krel_stream_decompress_ctx_t *ctx, const void *in, size_t *in_size, void *out,
                           size_t *out_size) {
  if (ctx->m_failed) {
    *in_size = *out_size = 0;
    return -1;
  }
  switch (ctx->m_type) {
    case KREL_COMPRESS_NONE:
      pass(in, in_size, out, out_size);
      break;
    case KREL_COMPRESS_GZIP:
      ctx->m_failed = !ctx->gunzip(in, in_size, out, out_size);
      break;
    case KREL_COMPRESS_LZ4F:
      ctx->m_failed = !ctx->unlz4(in, in_size, out, out_size);
      break;
  }
  return ctx->m_failed ? -1 : 0;
}

int krel_stream_decompress_finish(krel_stream_decompress_ctx_t *ctx) {
  return ctx->m_failed || ctx->m_inside ? -1 : 0;
}

// ---- encoding

// LZ4 wants room for its worst case at every step, and a flush of zlib into a few bytes of room would begin
// itself anew each time: their output waits in m_waiting until there is room for it outside.
struct krel_stream_compress_ctx_t {
  krel_compress_type_e m_type = KREL_COMPRESS_NONE;
  bool m_failed = false;
  bool m_begun = false;   // the frame's header is made
  bool m_flushed = true;  // all that was taken has left the coder
  bool m_ended = false;   // the end is made
  z_stream m_zlib = {};
  bool m_zlib_ready = false;
  LZ4F_cctx *m_lz4 = nullptr;
  std::vector<char> m_waiting;
  size_t m_waiting_from = 0, m_waiting_to = 0;

  krel_stream_compress_ctx_t() = default;
  krel_stream_compress_ctx_t(const krel_stream_compress_ctx_t &) = delete;
  krel_stream_compress_ctx_t &operator=(const krel_stream_compress_ctx_t &) = delete;
  ~krel_stream_compress_ctx_t() {
    if (m_zlib_ready) deflateEnd(&m_zlib);
    LZ4F_freeCompressionContext(m_lz4);
  }

  bool begin();
  size_t drain(char *out, size_t room);
  bool put(size_t made);
  bool lz4_header();
  int gzip_out(int flush, char *out, size_t *out_size);
  bool lz4(const char *in, size_t *in_size, char *out, size_t *out_size);
  bool gzip(const void *in, size_t *in_size, void *out, size_t *out_size);
};

bool krel_stream_compress_ctx_t::begin() {
  m_failed = m_begun = m_ended = false;
  m_flushed = true;
  m_waiting_from = m_waiting_to = 0;
  if (m_type == KREL_COMPRESS_GZIP) {
    if (m_zlib_ready) return deflateReset(&m_zlib) == Z_OK;
    m_zlib_ready = deflateInit2(&m_zlib, GZIP_LEVEL, Z_DEFLATED, GZIP_WINDOW, 8, Z_DEFAULT_STRATEGY) == Z_OK;
    return m_zlib_ready;
  }
  if (m_type == KREL_COMPRESS_LZ4F) {
    if (m_lz4 == nullptr && LZ4F_isError(LZ4F_createCompressionContext(&m_lz4, LZ4F_VERSION))) return false;
    const LZ4F_preferences_t preferences = lz4_preferences();
    m_waiting.resize(LZ4F_HEADER_SIZE_MAX + LZ4F_compressBound(LZ4_PIECE, &preferences));
  }
  return true;
}

size_t krel_stream_compress_ctx_t::drain(char *out, size_t room) {
  const size_t size = std::min(room, m_waiting_to - m_waiting_from);
  if (size != 0) memcpy(out, m_waiting.data() + m_waiting_from, size);
  m_waiting_from += size;
  return size;
}

// Takes note of what a step has made at the front of m_waiting, which was empty before.
bool krel_stream_compress_ctx_t::put(size_t made) {
  m_waiting_from = 0;
  m_waiting_to = LZ4F_isError(made) ? 0 : made;
  return !LZ4F_isError(made);
}

bool krel_stream_compress_ctx_t::lz4_header() {
  const LZ4F_preferences_t preferences = lz4_preferences();
  m_begun = true;
  return put(LZ4F_compressBegin(m_lz4, m_waiting.data(), m_waiting.size(), &preferences));
}

bool krel_stream_compress_ctx_t::lz4(const char *in, size_t *in_size, char *out, size_t *out_size) {
  const size_t input = *in_size, room = *out_size;
  size_t taken = 0, written = 0;
  bool good = true;
  while (good) {
    written += drain(out + written, room - written);
    if (m_waiting_from != m_waiting_to) break;
    if (!m_begun) {
      good = lz4_header();
    } else if (taken < input) {
      const size_t piece = std::min(LZ4_PIECE, input - taken);
      good = put(LZ4F_compressUpdate(m_lz4, m_waiting.data(), m_waiting.size(), in + taken, piece, nullptr));
      taken += piece;
    } else {
      break;
    }
  }
  *in_size = taken;
  *out_size = written;
  return good;
}

bool krel_stream_compress_ctx_t::gzip(const void *in, size_t *in_size, void *out, size_t *out_size) {
  const size_t waited = drain(static_cast<char *>(out), *out_size);
  m_zlib.next_in = static_cast<Bytef *>(const_cast<void *>(in));
  m_zlib.avail_in = m_waiting_from == m_waiting_to ? zlib_size(*in_size) : 0;
  const uInt had_in = m_zlib.avail_in;
  *out_size -= waited;
  const int result = gzip_out(Z_NO_FLUSH, static_cast<char *>(out) + waited, out_size);
  *out_size += waited;
  *in_size = had_in - m_zlib.avail_in;
  return result >= 0;
}

// Room that is 0 makes deflate report Z_BUF_ERROR, as does a flush with nothing new: neither is a failure.
int krel_stream_compress_ctx_t::gzip_out(int flush, char *out, size_t *out_size) {
  Bytef none;
  m_zlib.next_out = *out_size == 0 ? &none : reinterpret_cast<Bytef *>(out);
  m_zlib.avail_out = zlib_size(*out_size);
  const uInt had_out = m_zlib.avail_out;
  const int result = deflate(&m_zlib, flush);
  *out_size = had_out - m_zlib.avail_out;
  if (result == Z_STREAM_END) return 0;
  if (result != Z_OK && result != Z_BUF_ERROR) return -1;
  return flush == Z_FINISH || m_zlib.avail_out == 0 ? 1 : 0;
}

krel_stream_compress_ctx_t *krel_create_stream_compress_ctx() {
  return std::make_unique<krel_stream_compress_ctx_t>().release();
}

void krel_destroy_stream_compress_ctx(krel_stream_compress_ctx_t *ctx) {
  std::unique_ptr<krel_stream_compress_ctx_t>{ctx};
}

int krel_stream_compress_init(krel_stream_compress_ctx_t *ctx, krel_compress_type_e type) {
  ctx->m_type = type;
  return ctx->begin() ? 0 : -1;
}

int krel_stream_compress(krel_stream_compress_ctx_t *ctx, const void *in, size_t *in_size, void *out,
                         size_t *out_size) {
  if (ctx->m_failed || ctx->m_ended) {
    *in_size = *out_size = 0;
    return -1;
  }
  switch (ctx->m_type) {
    case KREL_COMPRESS_NONE:
      pass(in, in_size, out, out_size);
      break;
    case KREL_COMPRESS_GZIP:
      ctx->m_failed = !ctx->gzip(in, in_size, out, out_size);
      break;
    case KREL_COMPRESS_LZ4F:
      ctx->m_failed = !ctx->lz4(static_cast<const char *>(in), in_size, static_cast<char *>(out), out_size);
      break;
  }
  if (*in_size != 0) ctx->m_flushed = false;
  return ctx->m_failed ? -1 : 0;
}

namespace {

enum class tail_e { FLUSH, END };

// One step of the coder toward the tail, into the empty m_waiting.
bool lz4_step(krel_stream_compress_ctx_t *ctx, tail_e tail) {
  if (!ctx->m_begun) return ctx->lz4_header();
  char *to = ctx->m_waiting.data();
  if (tail == tail_e::END) {
    ctx->m_ended = true;
    return ctx->put(LZ4F_compressEnd(ctx->m_lz4, to, ctx->m_waiting.size(), nullptr));
  }
  ctx->m_flushed = true;
  return ctx->put(LZ4F_flush(ctx->m_lz4, to, ctx->m_waiting.size(), nullptr));
}

bool gzip_step(krel_stream_compress_ctx_t *ctx, tail_e tail) {
  ctx->m_waiting.resize(GZIP_PIECE);
  ctx->m_zlib.next_in = nullptr;
  ctx->m_zlib.avail_in = 0;
  size_t made = GZIP_PIECE;
  const int result = ctx->gzip_out(tail == tail_e::END ? Z_FINISH : Z_SYNC_FLUSH, ctx->m_waiting.data(), &made);
  if (result == 0) (tail == tail_e::END ? ctx->m_ended : ctx->m_flushed) = true;
  return result >= 0 && ctx->put(made);
}

// What is left inside comes out in steps: what waits, then what the coder's next step makes.
int stream_tail(krel_stream_compress_ctx_t *ctx, tail_e tail, char *out, size_t *out_size) {
  const size_t room = *out_size;
  size_t written = 0;
  while (!ctx->m_failed) {
    written += ctx->drain(out + written, room - written);
    *out_size = written;
    if (ctx->m_waiting_from != ctx->m_waiting_to) return 1;
    if (ctx->m_ended || ctx->m_type == KREL_COMPRESS_NONE) return 0;
    if (tail == tail_e::FLUSH && ctx->m_flushed) return 0;
    ctx->m_failed = !(ctx->m_type == KREL_COMPRESS_GZIP ? gzip_step(ctx, tail) : lz4_step(ctx, tail));
  }
  *out_size = written;
  return -1;
}

}  // namespace

int krel_stream_compress_flush(krel_stream_compress_ctx_t *ctx, void *out, size_t *out_size) {
  return stream_tail(ctx, tail_e::FLUSH, static_cast<char *>(out), out_size);
}

int krel_stream_compress_finish(krel_stream_compress_ctx_t *ctx, void *out, size_t *out_size) {
  return stream_tail(ctx, tail_e::END, static_cast<char *>(out), out_size);
}

bool krel_compress_lz4f(const void *bytes, size_t length, std::string *out) {
  LZ4F_preferences_t preferences = lz4_preferences();
  preferences.frameInfo.contentSize = length;
  const size_t before = out->size();
  out->resize(before + LZ4F_compressFrameBound(length, &preferences));
  const size_t made =
      LZ4F_compressFrame(out->data() + before, out->size() - before, bytes, length, &preferences);
  out->resize(before + (LZ4F_isError(made) ? 0 : made));
  return !LZ4F_isError(made);
}
