// Any bytes as a topology: compiled or refused with a reason; what compiles finds owners for any key.

#include <cstdint>
#include <cstdlib>

#include "libvelmar/topo/topo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string xml(reinterpret_cast<const char *>(data), size);
  // large weights only cost time, and names would be resolved
  if (xml.find("weight=\"") != std::string::npos && xml.size() > 4096) return 0;
  for (size_t at = 0; (at = xml.find("address=\"", at)) != std::string::npos; at += 9)
    if (xml.compare(at + 9, 4, "127.") != 0) return 0;
  std::string err;
  const auto tc = topo_compile_text(xml, nullptr, &err);
  if (!tc) {
    if (err.empty()) abort();
    return 0;
  }
  host_config *loc[TOPO_MAX_WRITE_COPIES];
  topo_location_t key;
  for (int i = 0; i < 8; i++) {
    key.fill(static_cast<uint8_t>(i * 37));
    if (topo_find_insertion_point_key(tc.get(), key.data(), loc, 0) != topo_w(tc.get())) abort();
    for (int a = 0; a < topo_w(tc.get()); a++)
      for (int b = 0; b < a; b++)
        if (loc[a] == loc[b]) abort();
  }
  return 0;
}
