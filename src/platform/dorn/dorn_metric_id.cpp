#include "platform/dorn/dorn_metric_id.h"

bool dorn_metric_id_process_tags(dorn_metric_id_t *id, const char *name, size_t name_len,
                                 std::string_view check_uuid) {
  *id = {};
  dorn_name_parts_t parts;
  if (!dorn_metric_name_is_clean(name, name_len) || dorn_metric_name_split(name, name_len, &parts) != 0)
    return false;
  if (!dorn_metric_tagset_init_with_context(&id->stream_tags, nullptr, name + parts.tags_offset, parts.tags_len,
                                            dorn_tagset_text_e::copy)) {
    return false;
  }
  id->name = {name, parts.base_len};
  id->check_uuid = check_uuid;
  return true;
}

void dorn_metric_id_clear(dorn_metric_id_t *id) {
  dorn_metric_tagset_cleanup(&id->stream_tags);
  *id = {};
}
