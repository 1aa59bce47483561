// Any lines as a body of text: each one is a sample, an error, or neither, and nothing is counted twice.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "be/raw/raw_put_parse.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace be::raw;
  static const bool silent = (krel_log_stream_switch("error", false), true);
  (void)silent;
  static known_metrics_c known;
  std::string text(reinterpret_cast<const char *>(data), size);
  text += '\n';
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  raw_put_request_t *request = raw_put_request_t::create(nullptr);
  {
    const krel_memory_section_c section;
    raw_batch_t batch;
    if (!rest_raw_mgr_parse_ingestion_data(request, &known, text.data(), text.size(), lines, &batch)) abort();
    if (batch.samples.size() != batch.numerics.size()) abort();
    if (request->counters.processed != lines || batch.size() + request->counters.errors > lines) abort();
  }
  libvelmar_join_commit(request->joiner);
  request->let_go();
  return 0;
}
