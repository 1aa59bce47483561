#include "be/hist/hist_stream.h"

#include <fmt/format.h>

#include <iterator>

namespace {

void open_element(std::string *out, hist_stream_t *stream, uint64_t offset_ms, uint32_t period_s) {
  if (stream->started) *out += ",\n";
  stream->started = true;
  fmt::format_to(std::back_inserter(*out), "[{},", offset_ms / 1000);
  if (period_s) fmt::format_to(std::back_inserter(*out), "{},", period_s);
}

}  // namespace

void hist_stream(std::string *out, hist_stream_t *stream, uint64_t offset_ms, uint32_t period_s,
                 const histogram_t *hist) {
  open_element(out, stream, offset_ms, period_s);
  *out += '{';
  bool first = true;
  for (int i = 0, bins = hist_bucket_count(hist); i < bins; i++) {
    hist_bucket_t bucket;
    uint64_t count;
    if (!hist_bucket_idx_bucket(hist, i, &bucket, &count) || count == 0) continue;
    if (!first) *out += ',';
    first = false;
    if (stream->format == HIST_FORMAT_HEX) {
      fmt::format_to(std::back_inserter(*out), "\"0x{:02x}{:02x}\": {}", static_cast<uint8_t>(bucket.val),
                     static_cast<uint8_t>(bucket.exp), count);
    } else {
      char text[HIST_BUCKET_TEXT_SIZE];
      hist_bucket_to_string(bucket, text, sizeof(text));
      fmt::format_to(std::back_inserter(*out), "\"{}\":{}", text, count);
    }
  }
  *out += "}]";
}

void hist_stream_null(std::string *out, hist_stream_t *stream, uint64_t offset_ms, uint32_t period_s) {
  open_element(out, stream, offset_ms, period_s);
  *out += "null]";
}
