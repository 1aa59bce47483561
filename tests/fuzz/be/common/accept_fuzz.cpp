// Any bytes as an Accept header: each step takes something off, and a result is a type that is known.

#include <cstdint>
#include <cstdlib>

#include "be/common/accept.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view header(reinterpret_cast<const char *>(data), size);
  std::string_view rest = header;
  while (!rest.empty()) {
    const size_t before = rest.size();
    const auto range = velmar_be_common_next_accept_type(&rest);
    if (rest.size() >= before) abort();
    if (range && (range->q < 0 || range->q > 1000 || range->type.find('/') == std::string::npos)) abort();
  }
  velmar_be_accept_types_t types;
  velmar_be_common_init_accept_types(&types, {"application/json", "text/plain"});
  const auto best = velmar_be_common_find_accept_type(types, header);
  if (best && *best != "application/json" && *best != "text/plain") abort();
  return 0;
}
