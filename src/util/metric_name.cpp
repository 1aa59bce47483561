#include "util/metric_name.h"

#include <memory>

namespace {

struct context_free_t {
  void operator()(dorn_metric_tagset_context_t *context) const { dorn_metric_tagset_context_free(context); }
};

// What stream tags are checked by; made once.
const dorn_metric_tagset_context_t *stream_tag_context() {
  static const std::unique_ptr<dorn_metric_tagset_context_t, context_free_t> context = [] {
    std::unique_ptr<dorn_metric_tagset_context_t, context_free_t> made(dorn_metric_tagset_context_alloc());
    dorn_metric_tagset_context_set_validate_function(made.get(), reject_artificial_stream_tags);
    return made;
  }();
  return context.get();
}

// Cuts measurement blocks off the end; the result is that of the block before them.
int skip_measurements(mem_reader_t *name, mem_reader_t *type, mem_reader_t *value) {
  int kind;
  do kind = metric_name_parse_next_metadata(name, name, type, value);
  while (kind == 2);
  return kind;
}

}  // namespace

bool reject_artificial_stream_tags(const char *tag, size_t total_size, size_t category_size) {
  if (category_size > total_size) return true;
  const std::string_view category(tag, category_size);
  return category != "__check_uuid:" && category != "__activity:" && category != "__name:" &&
         category != "__type:";
}

int metric_name_parse_next_metadata(const mem_reader_t *in, mem_reader_t *out, mem_reader_t *type,
                                    mem_reader_t *value) {
  const mem_reader_t name = *in;
  mem_reader_t block;
  const size_t pos = mem_reader_find_pos_after_sep_from_end(&name, '|', &block);
  if (pos == 0 || pos > name.input_buffer_size || block.input_buffer_size == 0) return 0;
  const std::string_view text = mem_reader_view(block);
  int kind;
  if (text.find("MT{") != text.npos)
    kind = text.back() == '}' ? 2 : 0;
  else
    kind = text.find("ST[") != text.npos && text.back() == ']' ? 1 : 0;
  if (kind == 0) return 0;
  *type = {text.data(), 2};
  *value = {text.data() + 3, text.size() - 4};
  *out = {name.input_buffer, pos - 1};
  return kind;
}

bool metric_name_v1_parse(const mem_reader_t *in, mem_reader_t *out, dorn_metric_tagset_t *stream_tags) {
  *out = *in;
  dorn_metric_tagset_init(stream_tags);
  mem_reader_t rest = *in, type, tags;
  if (skip_measurements(&rest, &type, &tags) == 0) return true;
  if (mem_reader_view(type) != "ST") return false;
  if (!dorn_metric_tagset_init_with_context(stream_tags, stream_tag_context(), tags.input_buffer,
                                            tags.input_buffer_size, dorn_tagset_text_e::view))
    return false;
  mem_reader_t ignored;
  if (skip_measurements(&rest, &type, &ignored) == 0) return true;
  dorn_metric_tagset_cleanup(stream_tags);
  return false;
}
