// Histogram lines: one that is taken has a locator and a histogram that serialises to the text it came from.
#include <cstdlib>
#include <string>

#include "util/histogram_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string bytes(reinterpret_cast<const char *>(data), size);  // an overrun is seen
  const mem_reader_t line = {bytes.data(), bytes.size()};
  histogram_line_t out;
  const int result = decode_histogram_string(&line, &out);
  if (result != 1) {
    if (result < -8 || result > -1) abort();
    return 0;
  }
  if (!out.metric_locator || !out.histogram) abort();
  std::string b64(hist_serialize_b64_estimate(out.histogram.get()), '\0');
  b64.resize(static_cast<size_t>(hist_serialize_b64(out.histogram.get(), b64.data(), b64.size())));
  const hist_ptr again(hist_alloc());
  if (hist_deserialize_b64(again.get(), b64.data(), b64.size()) < 0) abort();
  if (hist_sample_count(again.get()) != hist_sample_count(out.histogram.get())) abort();
  return 0;
}
