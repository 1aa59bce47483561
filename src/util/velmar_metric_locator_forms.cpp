// The forms in which a locator is shown to and read from the outside.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/krel/base/krel_util.h"
#include "util/uuid_text.h"
#include "util/velmar_metric_locator.h"

char *velmar_metric_locator_get_type_str(const velmar_metric_locator_t *ml, char *buffer, size_t size) {
  static const char *const names[] = {"unknown", "numeric",      "histogram",     "numeric,histogram",
                                      "text",    "numeric,text", "histogram,text"};
  const unsigned type = velmar_metric_locator_get_type(ml);
  if (type == METRIC_TYPE_ANY)
    krel_strlcpy(buffer, "any", size);
  else if (type < std::size(names))
    krel_strlcpy(buffer, names[type], size);
  else
    snprintf(buffer, size, "invalid: 0x%04x", type);
  return buffer;
}

int velmar_metric_locator_b64_path(const velmar_metric_locator_t *ml, char *buffer, size_t size) {
  constexpr size_t prefix = UUID_TEXT_SIZE + 1;
  if (size < prefix) return 0;
  const mem_reader_t name = velmar_metric_locator_get_name_buf_with_tags(ml);
  uuid_text_print(ml->immutable->check_uuid, buffer);
  buffer[UUID_TEXT_SIZE] = 0;
  if (name.input_buffer_size == 0) return prefix;

  char *encoded = buffer + prefix;
  if (krel_b64_encode_len(name.input_buffer_size) >= size - prefix) return 0;
  const int64_t length = krel_b64_encode(name.input_buffer, name.input_buffer_size, encoded, size - prefix);
  if (length < 0) return 0;
  std::replace(encoded, encoded + length, '/', '_');
  encoded[length] = 0;
  buffer[UUID_TEXT_SIZE] = '/';
  return prefix;
}

velmar_metric_locator_t *velmar_metric_locator_from_b64_path(const char *uuid_text, const char *encoded_name) {
  uint8_t uuid[16];
  if (strnlen(uuid_text, UUID_TEXT_SIZE) < UUID_TEXT_SIZE || !uuid_text_parse(uuid_text, uuid)) return nullptr;
  std::string text(encoded_name);
  std::replace(text.begin(), text.end(), '_', '/');
  std::string name(krel_b64_max_decode_len(text.size()), '\0');
  const int64_t length = krel_b64_decode(text.data(), text.size(), name.data(), name.size());
  if (length <= 0) return nullptr;
  const mem_reader_t reader = {name.data(), static_cast<size_t>(length)};
  return velmar_metric_locator_create(uuid, &reader, METRIC_TYPE_NUMERIC);
}

krel_json_object *velmar_metric_locator_to_json(const velmar_metric_locator_t *ml) {
  char uuid[UUID_TEXT_SIZE];
  uuid_text_print(ml->immutable->check_uuid, uuid);
  krel_json_object *json = krel_json_object_new_object();
  krel_json_object_object_add(json, "account_id",
                              krel_json_object_new_int(velmar_metric_locator_get_account_id(ml)));
  krel_json_object_object_add(json, "check_uuid", krel_json_object_new_string_len(uuid, sizeof uuid));
  krel_json_object_object_add(json, "metric_name",
                              krel_json_object_new_string_len(ml->immutable->key_mem, ml->immutable->key_len));
  krel_json_object_object_add(json, "metric_type",
                              krel_json_object_new_int(velmar_metric_locator_get_type(ml)));
  return json;
}

velmar_metric_locator_t *velmar_metric_locator_from_json(const krel_json_object *json) {
  if (!krel_json_object_is_type(json, krel_json_type_object)) return nullptr;
  krel_json_object *check = krel_json_object_object_get(json, "check_uuid");
  krel_json_object *name = krel_json_object_object_get(json, "metric_name");
  const krel_json_object *type = krel_json_object_object_get(json, "metric_type");
  if (!krel_json_object_is_type(check, krel_json_type_string) ||
      !krel_json_object_is_type(name, krel_json_type_string) ||
      !krel_json_object_is_type(type, krel_json_type_int))
    return nullptr;

  int64_t account_id = -1;
  krel_json_object *account = nullptr;
  if (krel_json_object_object_get_ex(json, "account_id", &account)) {
    if (!krel_json_object_is_type(account, krel_json_type_int)) return nullptr;
    account_id = krel_json_object_get_int64(account);
    if (account_id < INT32_MIN || account_id > INT32_MAX) return nullptr;
  }
  uint8_t uuid[16];
  const std::string_view check_text = krel_json_object_get_string_view(check);
  if (check_text.size() != UUID_TEXT_SIZE || !uuid_text_parse(check_text.data(), uuid)) return nullptr;
  const std::string_view name_text = krel_json_object_get_string_view(name);
  const mem_reader_t reader = {name_text.data(), name_text.size()};
  const auto bits = static_cast<uint16_t>(krel_json_object_get_int64(type));
  return velmar_metric_locator_create_full(
      static_cast<int32_t>(account_id), static_cast<velmar_metric_locator_metric_type_e>(bits), uuid, &reader);
}
