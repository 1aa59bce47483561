// The decoders: within their bounds, never stuck, and a decoded text survives the encoder.

#include <cstdlib>
#include <string>

#include "platform/krel/base/krel_compress.h"

namespace {

constexpr size_t MAX_TEXT = 1 << 20;

// The text, as far as it was looked at; false when the stream is corrupt or cut.
bool decode(krel_compress_type_e type, std::string_view in, size_t step, std::string *text) {
  const krel_stream_decompress_ptr ctx(krel_create_stream_decompress_ctx());
  if (krel_stream_decompress_init(ctx.get(), type) != 0) abort();
  bool full = false;
  while ((!in.empty() || full) && text->size() < MAX_TEXT) {
    size_t taken = std::min(in.size(), step), written = step * 3;
    const size_t offered = taken, room = written;
    const std::string piece(in.substr(0, taken));
    const std::unique_ptr<char[]> out(new char[room]);
    const int failed = krel_stream_decompress(ctx.get(), piece.data(), &taken, out.get(), &written);
    if (taken > offered || written > room) abort();
    text->append(out.get(), written);
    if (failed != 0) return false;
    if (taken == 0 && written == 0 && offered != 0) abort();
    in.remove_prefix(taken);
    full = written == room;
  }
  return text->size() >= MAX_TEXT || krel_stream_decompress_finish(ctx.get()) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const auto type = data[0] % 2 ? KREL_COMPRESS_GZIP : KREL_COMPRESS_LZ4F;
  const std::string_view in(reinterpret_cast<const char *>(data) + 2, size - 2);
  std::string text, other;
  const bool good = decode(type, in, data[1] + size_t{1}, &text);
  if (decode(type, in, 100000, &other) != good) abort();
  if (!good || text.size() >= MAX_TEXT) return 0;
  if (text != other) abort();
  std::string frame, back;
  if (!krel_compress_lz4f(text.data(), text.size(), &frame)) abort();
  if (!decode(KREL_COMPRESS_LZ4F, frame, 4000, &back) || back != text) abort();
  return 0;
}
