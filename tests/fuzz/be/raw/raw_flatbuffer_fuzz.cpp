// Any bytes as a metric list of either form: refused whole, or read without a step outside the buffer.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "be/raw/raw_put_parse.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace be::raw;
  static const bool silent = (krel_log_stream_switch("error", false), true);
  (void)silent;
  static known_metrics_c known;
  if (size < 8) return 0;
  for (const auto form : {RAW_FLATBUFFERS_RELAY_V1, RAW_FLATBUFFERS_DORN}) {
    // the identifier is put right, so that what lies behind it is reached
    std::vector<uint64_t> aligned(size / 8 + 1);
    char *bytes = reinterpret_cast<char *>(aligned.data());
    memcpy(bytes, data, size);
    memcpy(bytes + 4, form == RAW_FLATBUFFERS_DORN ? "TMLS" : "TVML", 4);
    raw_put_request_t *request = raw_put_request_t::create(nullptr);
    {
      const krel_memory_section_c section;
      size_t samples = 0;
      rest_raw_mgr_parse_flatbuffer(request, &known, form, {bytes, size}, 100,
                                    [&](raw_batch_t &&batch) { samples += batch.size(); });
      if (samples + request->counters.errors > request->counters.processed) abort();
    }
    libvelmar_join_commit(request->joiner);
    request->let_go();
  }
  return 0;
}
