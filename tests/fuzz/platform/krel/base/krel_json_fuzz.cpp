// The parser: a text means the same in one piece and in two, and what is printed parses to the same.

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/krel/base/krel_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  const krel_json_ptr whole(krel_json_tokener_parse(text));

  const std::unique_ptr<krel_json_tokener, void (*)(krel_json_tokener *)> tokener(krel_json_tokener_new(),
                                                                                  krel_json_tokener_free);
  const size_t cut = text.empty() ? 0 : data[0] % text.size();
  krel_json_object *object = nullptr;
  krel_json_status_e status = krel_json_continue;
  if (cut > 0) status = krel_json_tokener_parse_ex(tokener.get(), text.data(), cut, &object);
  const bool whole_in_front = status == krel_json_done;
  if (status == krel_json_continue && cut < text.size())
    status = krel_json_tokener_parse_ex(tokener.get(), text.data() + cut, text.size() - cut, &object);
  if (status == krel_json_continue) status = krel_json_tokener_parse_ex(tokener.get(), nullptr, 0, &object);
  const krel_json_ptr pieces(object);
  if (!whole_in_front && (whole == nullptr) != (pieces == nullptr)) abort();
  if (whole == nullptr) return 0;

  const std::string printed = krel_json_object_to_json_string(whole.get());
  if (!whole_in_front && printed != krel_json_object_to_json_string(pieces.get())) abort();
  const krel_json_ptr again(krel_json_tokener_parse(printed));
  if (again == nullptr || printed != krel_json_object_to_json_string(again.get())) abort();
  return 0;
}
