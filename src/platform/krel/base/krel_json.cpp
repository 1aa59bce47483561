// The object model.

#include "platform/krel/base/krel_json.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <json-c/json_object.h>
#include <json-c/linkhash.h>
#include <json-c/printbuf.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>

namespace {

constexpr size_t MAX_FILE_SIZE = 256u << 20;

// As short as it reads back, and still a double when it does.
int print_double(json_object *object, printbuf *out, int, int) {
  const double value = json_object_get_double(object);
  if (!std::isfinite(value)) return printbuf_memappend(out, "null", 4);
  fmt::memory_buffer text;
  fmt::format_to(std::back_inserter(text), "{}", value);
  if (std::string_view(text.data(), text.size()).find_first_of(".e") == std::string_view::npos)
    text.append(std::string_view(".0"));
  return printbuf_memappend(out, text.data(), static_cast<int>(text.size()));
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

krel_json_object *krel_json_object_get(krel_json_object *object) {
  return json_object_get(object);
}
void krel_json_object_put(krel_json_object *object) {
  json_object_put(object);
}

krel_json_object *krel_json_object_new_object() {
  return json_object_new_object();
}
krel_json_object *krel_json_object_new_array() {
  return json_object_new_array();
}
krel_json_object *krel_json_object_new_string(const char *text) {
  return text == nullptr ? nullptr : json_object_new_string(text);
}
krel_json_object *krel_json_object_new_string_len(const char *text, size_t length) {
  return length > INT_MAX ? nullptr : json_object_new_string_len(text, static_cast<int>(length));
}
krel_json_object *krel_json_object_new_int(int64_t value) {
  return json_object_new_int64(value);
}
krel_json_object *krel_json_object_new_uint64(uint64_t value) {
  return json_object_new_uint64(value);
}
krel_json_object *krel_json_object_new_double(double value) {
  json_object *object = json_object_new_double(value);
  json_object_set_serializer(object, print_double, nullptr, nullptr);
  return object;
}
krel_json_object *krel_json_object_new_boolean(bool value) {
  return json_object_new_boolean(value);
}

void krel_json_object_object_add(krel_json_object *object, const char *key, krel_json_object *value) {
  json_object_object_add(object, key, value);
}
void krel_json_object_array_add(krel_json_object *array, krel_json_object *value) {
  json_object_array_add(array, value);
}
void krel_json_object_set_uint64(krel_json_object *object, uint64_t value) {
  json_object_set_uint64(object, value);
}

krel_json_type krel_json_object_get_type(const krel_json_object *object) {
  switch (json_object_get_type(object)) {
    case json_type_boolean:
      return krel_json_type_boolean;
    case json_type_double:
      return krel_json_type_double;
    case json_type_int:
      return krel_json_type_int;
    case json_type_object:
      return krel_json_type_object;
    case json_type_array:
      return krel_json_type_array;
    case json_type_string:
      return krel_json_type_string;
    case json_type_null:
      break;
  }
  return krel_json_type_null;
}
bool krel_json_object_is_type(const krel_json_object *object, krel_json_type type) {
  return krel_json_object_get_type(object) == type;
}
bool krel_json_object_get_boolean(const krel_json_object *object) {
  return json_object_get_boolean(object);
}
int32_t krel_json_object_get_int(const krel_json_object *object) {
  return json_object_get_int(object);
}
int64_t krel_json_object_get_int64(const krel_json_object *object) {
  return json_object_get_int64(object);
}
uint64_t krel_json_object_get_uint64(const krel_json_object *object) {
  return json_object_get_uint64(object);
}
double krel_json_object_get_double(const krel_json_object *object) {
  return json_object_get_double(object);
}

krel_json_overflow_e krel_json_object_get_int_overflow(const krel_json_object *object) {
  if (json_object_get_uint64(object) > INT64_MAX) return krel_json_overflow_uint64;
  const int64_t value = json_object_get_int64(object);
  return value == static_cast<int32_t>(value) ? krel_json_overflow_int : krel_json_overflow_int64;
}

const char *krel_json_object_get_string(krel_json_object *object) {
  const char *text = json_object_get_string(object);
  return text == nullptr ? "" : text;
}
std::string_view krel_json_object_get_string_view(krel_json_object *object) {
  if (!krel_json_object_is_type(object, krel_json_type_string)) return krel_json_object_get_string(object);
  return {json_object_get_string(object), static_cast<size_t>(json_object_get_string_len(object))};
}

size_t krel_json_object_array_length(const krel_json_object *array) {
  return krel_json_object_is_type(array, krel_json_type_array) ? json_object_array_length(array) : 0;
}
krel_json_object *krel_json_object_array_get_idx(const krel_json_object *array, size_t index) {
  return index < krel_json_object_array_length(array) ? json_object_array_get_idx(array, index) : nullptr;
}
krel_json_object *krel_json_object_object_get(const krel_json_object *object, const char *key) {
  krel_json_object *value = nullptr;
  krel_json_object_object_get_ex(object, key, &value);
  return value;
}
bool krel_json_object_object_get_ex(const krel_json_object *object, const char *key, krel_json_object **value) {
  *value = nullptr;
  return krel_json_object_is_type(object, krel_json_type_object) &&
         json_object_object_get_ex(object, key, value);
}

krel_json_entry *krel_json_object_get_object_head(const krel_json_object *object) {
  if (!krel_json_object_is_type(object, krel_json_type_object)) return nullptr;
  return lh_table_head(json_object_get_object(object));
}
krel_json_entry *krel_json_entry_next(const krel_json_entry *entry) {
  return lh_entry_next(entry);
}
const char *krel_json_entry_key(const krel_json_entry *entry) {
  return static_cast<const char *>(lh_entry_k(entry));
}
krel_json_object *krel_json_entry_value(const krel_json_entry *entry) {
  return static_cast<json_object *>(lh_entry_v(entry));
}

const char *krel_json_object_to_json_string(krel_json_object *object) {
  return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

krel_json_object *krel_json_object_from_file(const char *path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  krel_json_object *object = krel_json_object_from_fd(fd);
  const int error = errno;
  close(fd);
  errno = error;
  return object;
}

krel_json_object *krel_json_object_from_fd(int fd) {
  std::string text;
  for (size_t used = 0;;) {
    if (used == text.size()) text.resize(used + std::max<size_t>(used, 16384));
    const ssize_t got = read(fd, text.data() + used, text.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return nullptr;
    if (got == 0) {
      text.resize(used);
      break;
    }
    used += static_cast<size_t>(got);
    if (used > MAX_FILE_SIZE) {
      errno = EFBIG;
      return nullptr;
    }
  }
  krel_json_object *object = krel_json_tokener_parse(text);
  if (object == nullptr) errno = EINVAL;
  return object;
}

int krel_json_object_to_file(const char *path, krel_json_object *object) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  const bool written =
      write_all(fd, krel_json_object_to_json_string(object)) && write_all(fd, "\n") && fsync(fd) == 0;
  const int error = errno;
  const bool closed = close(fd) == 0;
  if (written && closed) return 0;
  if (!written) errno = error;
  return -1;
}
