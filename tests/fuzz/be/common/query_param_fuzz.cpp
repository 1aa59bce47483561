// Any text for each parser of query parameters: refused, or a value that is set.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "be/common/query_param.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace velmar_be_common;
  const std::string text(reinterpret_cast<const char *>(data), size);
  constexpr uint64_t untouched = 0x1234567890abcdef;
  for (const auto *parser :
       {&get_uint64_parser(), &get_timestamp_s_parser(), &get_timestamp_s_ms_parser(), &get_time_gm_s_parser(),
        &get_time_gm_ms_parser(), &get_duration_s_parser(), &get_duration_ms_parser()}) {
    uint64_t value = untouched;
    if (!parser->parse(text.c_str(), &value) && value != untouched) abort();
  }
  bool flag = false;
  get_krel_boolean_parser().parse(text.c_str(), &flag);
  uuid_t uuid{};
  get_uuid_parser().parse(text.c_str(), &uuid);
  return 0;
}
