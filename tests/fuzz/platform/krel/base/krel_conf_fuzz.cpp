// Documents from outside: parsing, merging, XPath, the environment, a change and its result read back.

#include <string>
#include <vector>

#include "platform/krel/base/krel_conf_document.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view text(reinterpret_cast<const char *>(data), size);
  std::string error;
  auto sources = krel_conf_sources_c::load("/nonexistent/fuzz.conf", &text, &error);
  if (!sources) {
    if (error.empty()) __builtin_trap();  // a refusal says why
    return 0;
  }
  auto snapshot = sources->merge(&error);
  if (!snapshot) return 0;
  std::vector<_xmlNode *> nodes;
  for (const char *path : {"//*", "//@*", "//text()", "//log[@name='error']/@path|//include/*"}) {
    if (!snapshot->select(nullptr, path, &nodes, &error)) __builtin_trap();
    for (const _xmlNode *node : nodes) {
      std::string value;
      snapshot->value_of(node, &value, &error);
      if (snapshot->describe(node).empty()) __builtin_trap();
      if (krel_conf_snapshot_c::source_of(node) == nullptr) __builtin_trap();
    }
  }
  return 0;
}
