// Tag search: what parses prints a text that parses to the same tree, and evaluates the same.

#include <cstdlib>
#include <string>

#include "platform/dorn/dorn_search.h"

static void require(bool condition) {
  if (!condition) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  int offset = -1;
  const auto tree = dorn_metric_tag_search_parse(text, &offset);
  const auto lazy = dorn_metric_tag_search_parse_lazy(text, nullptr);
  if (!tree) {
    require(offset >= 0 && static_cast<size_t>(offset) <= size);
    if (lazy) dorn_metric_tag_search_unparse(lazy.get());
    return 0;
  }
  require(lazy != nullptr);

  const std::string printed = dorn_metric_tag_search_unparse(tree.get());
  if (printed.size() > DORN_TAG_SEARCH_MAX_TEXT) return 0;
  const auto again = dorn_metric_tag_search_parse(printed, nullptr);
  require(again != nullptr);
  require(dorn_metric_tag_search_unparse(again.get()) == printed);
  const auto copy = dorn_metric_tag_search_clone_lazy(lazy.get());
  require(dorn_metric_tag_search_unparse(copy.get()) == printed);

  static const char tags[] =
      "a:b,b\"a2V5IDE=\":b\"/w==\",c:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa,dc:fra:2,host:web-1";
  dorn_metric_tagset_t set;
  require(dorn_metric_tagset_init_with_context(&set, nullptr, tags, sizeof tags - 1, dorn_tagset_text_e::view));
  const bool result = dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set);
  require(dorn_metric_tag_search_evaluate_against_tags(again.get(), &set) == result);
  require(dorn_metric_tag_search_evaluate_against_tags(copy.get(), &set) == result);
  return 0;
}
